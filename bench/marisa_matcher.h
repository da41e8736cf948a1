// The MARISA peer: the compact alternative to hash tables. Names sit in one
// MARISA succinct trie per rule number, reversed ("a.b.c" as "c.b.a", and
// "*.b.c" as "c.b"), with the verdicts of each key's name and "*." form in an
// array by key id; one common-prefix search over the reversed query finds
// the whole name and every parent suffix at once, and the longest one with a
// verdict of the right form wins. Applications and addresses are as in the
// hash peer (PeerMatcher), so the two differ only in how they hold names.
// Cost: a query reverses its name once and walks it through the trie of each
// rule number tried. Not thread-safe: queries reuse the agent and the reversed
// name of the matcher, so one query runs at a time.
#ifndef TPA_BENCH_MARISA_MATCHER_H_
#define TPA_BENCH_MARISA_MATCHER_H_

#include <marisa/agent.h>
#include <marisa/keyset.h>
#include <marisa/trie.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "peer_matcher.h"
#include "peer_tables.h"

namespace tpa::bench {

class MarisaNames {
 public:
  struct Query {
    std::string_view reversed;  // the matcher's scratch: valid until the next prepare
  };

  MarisaNames();
  ~MarisaNames();
  MarisaNames(MarisaNames&&) noexcept;
  MarisaNames& operator=(MarisaNames&&) noexcept;

  static constexpr bool kViewsDocument = false;  // the tries hold their keys

  void reserve(std::size_t, std::size_t) {}
  // The names of one rule number other than 0 are added together (PeerMatcher
  // adds a rule whole, and only rule 0 gathers several rules): its trie is
  // built once the next rule number starts, so that only rule 0's names and
  // those of the rule at hand wait in memory.
  void add(int rule, std::string_view name, bool wildcard, Verdict v);
  // Builds the tries still pending; nothing is added after.
  void finish();
  void prepare(std::string_view name, Query& q) const;
  [[nodiscard]] Verdict find(int rule, const Query& q) const;
  [[nodiscard]] std::size_t bytes() const;

 private:
  struct Forms {
    Verdict exact, wildcard;
  };
  // One rule number's names.
  struct Scope {
    std::unique_ptr<marisa::Trie> trie;  // null when the rule number has no name
    std::vector<Forms> forms;            // by key id of trie
  };
  // Names of one rule number added and not yet in its trie.
  struct Batch {
    struct Name {
      std::uint32_t offset = 0, length = 0;  // the reversed name in `reversed`
      bool wildcard = false;
      Verdict verdict;
    };
    int rule = -1;  // -1 while empty
    std::string reversed;
    std::vector<Name> names;
  };
  void add(Batch& batch, std::string_view name, bool wildcard, Verdict v);
  void build(Batch& batch);  // the batch's trie; leaves the batch empty

  std::vector<Scope> scopes_;  // by rule number
  Batch any_;                  // rule 0's names, built by finish
  Batch current_;              // the latest other rule number's
  // Scratch of one query.
  mutable std::string reversed_;
  mutable std::unique_ptr<marisa::Agent> agent_;
};

using MarisaMatcher = PeerMatcher<MarisaNames>;

}  // namespace tpa::bench

#endif  // TPA_BENCH_MARISA_MATCHER_H_
