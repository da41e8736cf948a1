// The matcher built on MARISA succinct tries: the compact alternative to
// hash tables. One trie maps applications to rule numbers; one trie holds
// every destination under a "rule|flag" prefix: names reversed (a wildcard
// *.b.c as its reversed tail "c.b.", so that one common-prefix search finds
// the exact name and every wildcard above it), addresses and networks as
// '0'/'1' bit strings (exact addresses closed by 'x'). Values live in arrays
// indexed by key id.
// Cost: a query is one trie lookup for the application and, per list and
// rule number tried, one common-prefix search over the reversed name or the
// address bits. Not thread-safe: queries reuse the matcher's agent and key
// buffer, so one query runs at a time.
#ifndef TPA_BENCH_MARISA_MATCHER_H_
#define TPA_BENCH_MARISA_MATCHER_H_

#include <marisa/trie.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "peer_common.h"
#include "workload.h"

namespace tpa::bench {

class MarisaMatcher {
 public:
  MarisaMatcher();
  ~MarisaMatcher();
  MarisaMatcher(const MarisaMatcher&) = delete;
  MarisaMatcher& operator=(const MarisaMatcher&) = delete;

  void build(const RuleSet& rules);
  [[nodiscard]] Answer query(std::string_view app, std::string_view destination);

  // Bytes of both tries and the value arrays.
  [[nodiscard]] std::size_t sizeInBytes() const;

 private:
  [[nodiscard]] ListHit find(const Destination& d, int rule, char flag);
  [[nodiscard]] bool lookup(const Destination& d, int rule, Answer& out);

  marisa::Trie apps_;
  std::vector<int> appRules_;  // by key id of apps_
  marisa::Trie destinations_;
  std::vector<int> values_;  // by key id of destinations_: the rule's id
  // Scratch of one query: the agent and the key it searches.
  std::unique_ptr<marisa::Agent> agent_;
  std::string key_;
};

}  // namespace tpa::bench

#endif  // TPA_BENCH_MARISA_MATCHER_H_
