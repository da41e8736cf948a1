// The library's own matching (framed keys in three suffix automata, whole,
// network-prefix and wildcard lookups, the include/exclude weighing and the
// fallback to rule 0) on the engine's automaton with its plainest transition
// store, one node-based std::map per state (fsa::MapTransitions). No result
// cache. It is the naive baseline of the memory and build-time comparison,
// and its answers must equal the library's on every query.
// Cost: 16 bytes of state plus a 48-byte std::map header for each of the 2n
// states allocated up front, and one heap node (~48 bytes) per transition; a
// step is a red-black tree search. Not thread-safe for building; queries are
// const and may run concurrently.
#ifndef TPA_BENCH_NAIVE_REFERENCE_H_
#define TPA_BENCH_NAIVE_REFERENCE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fsa/map_transitions.h"
#include "fsa/suffix_automaton.h"
#include "peer_common.h"

namespace tpa::parser {
class Rule;
}  // namespace tpa::parser

namespace tpa::bench {

class NaiveReference {
 public:
  // Reads the rules document with the library's own reader and fills the
  // three automata as the library does. A tpa::error code; on failure the
  // reference answers every query with the default.
  [[nodiscard]] int build(const std::string& json);
  [[nodiscard]] Answer query(const std::string& app, const std::string& destination) const;

 private:
  using Automaton = fsa::SuffixAutomaton<int, fsa::MapTransitions>;

  // Stores one rule's applications and both lists, as the library's map does.
  [[nodiscard]] int put(const parser::Rule& rule, int number);
  [[nodiscard]] ListHit find(const std::string& text, int rule, const Automaton& machine,
                             std::uint8_t flag) const;
  [[nodiscard]] bool lookup(const std::string& text, int rule, Answer& out) const;

  std::unique_ptr<Automaton> machines_[3];  // apps, include, exclude; null before build
};

}  // namespace tpa::bench

#endif  // TPA_BENCH_NAIVE_REFERENCE_H_
