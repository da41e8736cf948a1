// MapTransitions: the plain transition store, one node-based std::map per
// state beside the state's payload. Same interface as CompactTransitions; kept
// as the straightforward reference that the compact store is checked and
// measured against.
//
// Cost model: a std::map header and a payload per allocated state (all made
// resident up front) and one heap node per transition; O(log k) lookups. Owns
// its maps; no internal synchronisation.
#ifndef TPA_FSA_MAP_TRANSITIONS_H_
#define TPA_FSA_MAP_TRANSITIONS_H_

#include <cstdint>
#include <map>
#include <vector>

namespace tpa::fsa {

template <typename Payload>
class MapTransitions {
 public:
  [[nodiscard]] bool allocate(int states) {
    maps_.assign(static_cast<std::size_t>(states), {});
    payloads_.assign(static_cast<std::size_t>(states), Payload{});
    return true;
  }

  Payload& payload(int state) { return payloads_[static_cast<std::size_t>(state)]; }
  const Payload& payload(int state) const { return payloads_[static_cast<std::size_t>(state)]; }

  const std::int32_t* find(int state, unsigned char c) const {
    const auto& map = maps_[static_cast<std::size_t>(state)];
    auto it = map.find(c);
    return it == map.end() ? nullptr : &it->second;
  }
  std::int32_t* find(int state, unsigned char c) {
    auto& map = maps_[static_cast<std::size_t>(state)];
    auto it = map.find(c);
    return it == map.end() ? nullptr : &it->second;
  }

  void insert(int state, unsigned char c, std::int32_t target) {
    maps_[static_cast<std::size_t>(state)].emplace(c, target);
  }

  void copy(int from, int to) {
    maps_[static_cast<std::size_t>(to)] = maps_[static_cast<std::size_t>(from)];
  }

  void prefetch(int) const {}

  template <typename F>
  void forEachTarget(int state, F f) {
    for (auto& edge : maps_[static_cast<std::size_t>(state)]) f(edge.second);
  }

 private:
  std::vector<std::map<unsigned char, std::int32_t>> maps_;  // one per allocated state
  std::vector<Payload> payloads_;                            // one per allocated state
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_MAP_TRANSITIONS_H_
