// OpenTable: the slots of a hash table with open addressing and linear
// probing, and hashBytes, the one hash the engine and the layers above it
// file byte strings under. A slot type says when it is empty (`empty()`, true
// for a value-initialised slot); what a slot holds and when two keys are the
// same is the caller's, told through the predicate of probe(). A key's home is
// its hash's low half scaled to the table's size (any size works), so the high
// half stays free to serve as a tag kept in the slot.
// Owns its slots. Const members may run concurrently; probing allocates
// nothing and never throws.
#ifndef TPA_FSA_OPEN_TABLE_H_
#define TPA_FSA_OPEN_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tpa::fsa {

// A 64-bit hash of key[0, n), read eight bytes at a time, continuing from
// `seed` (the hash of a preceding piece, or 0): the hash of a pair of strings
// is hashBytes(second, hashBytes(first)). The length takes part, so "ab" then
// "c" and "a" then "bc" hash apart. Each word is mixed on its own (MurmurHash64A's
// steps) before it meets the running hash, so that the words' mixing overlaps
// and only a multiply a word lies on the running hash's path.
inline std::uint64_t hashBytes(const void* key, std::size_t n, std::uint64_t seed = 0) {
  constexpr std::uint64_t kMul = 0xc6a4a7935bd1e995u;
  constexpr int kShift = 47;
  const auto* k = static_cast<const unsigned char*>(key);
  std::uint64_t h = seed ^ (static_cast<std::uint64_t>(n) * kMul);
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, k + i, 8);
    w *= kMul;
    w ^= w >> kShift;
    w *= kMul;
    h = (h ^ w) * kMul;
  }
  if (i < n) {
    // The last few bytes, gathered one by one: copying them into a word on
    // the stack would call memcpy and stall the load that follows it.
    std::uint64_t w = 0;
    for (std::size_t j = n; j > i; --j) w = w << 8 | k[j - 1];
    h = (h ^ w) * kMul;
  }
  h ^= h >> kShift;
  h *= kMul;
  return h ^ (h >> kShift);
}

template <typename Slot>
class OpenTable {
 public:
  // n empty slots, replacing any; n > 0. The caller keeps at least one slot
  // empty, so that every probe ends. Throws std::bad_alloc.
  void reset(std::size_t n) { slots_.assign(n, Slot{}); }

  // The index of the first slot, from h's home on, that is empty or that
  // `match(slot)` takes; the table must have slots.
  template <typename Match>
  std::size_t probe(std::uint64_t h, Match match) const {
    for (std::size_t i = home(h);; i = i + 1 == slots_.size() ? 0 : i + 1) {
      const Slot& s = slots_[i];
      if (s.empty() || match(s)) return i;
    }
  }

  Slot& operator[](std::size_t i) { return slots_[i]; }
  const Slot& operator[](std::size_t i) const { return slots_[i]; }
  std::size_t size() const { return slots_.size(); }
  bool empty() const { return slots_.empty(); }
  std::size_t bytes() const { return slots_.capacity() * sizeof(Slot); }

 private:
  std::size_t home(std::uint64_t h) const {
    return static_cast<std::size_t>((h & 0xffffffffu) * slots_.size() >> 32);
  }

  std::vector<Slot> slots_;  // empty until reset
};

}  // namespace tpa::fsa

#endif  // TPA_FSA_OPEN_TABLE_H_
