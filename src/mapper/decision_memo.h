// DecisionMemo: whole decisions of recent queries, keyed by (application,
// destination) and the epoch of the map that made them (Map files each map's
// decisions under an epoch no other map shares and renews it when its caches
// are emptied), so that a repeated query skips the machines and a decision
// only ever answers for the map, and the state of it, that made it.
//
// Set-associative: sets of kWays entries, an entry of another epoch replaced
// first, then the least recently used; pairs longer than kMaxKey characters
// are never kept. The table starts at kMinSets sets on first use and doubles
// whenever it has replaced as many entries as it holds while answering at
// least one query in kHitsPerGrowth of those, up to kMaxSets: a working set
// of thousands of pairs (dozens of apps, each with its destinations) is
// answered from it, within a budget of about 2 MB for names of typical length
// (kMaxSets * kWays entries of 72 bytes plus their keys; 6 MB if every key
// had kMaxKey characters). A hit allocates nothing; when memory runs out the
// memo keeps what it has and never throws. Owns its entries. Each querying
// thread has its own (see Map), so no two threads write one. Not thread-safe.
#ifndef TPA_MAPPER_DECISION_MEMO_H_
#define TPA_MAPPER_DECISION_MEMO_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mapper/decision.h"

namespace tpa::mapper {

class DecisionMemo {
 public:
  // The decision kept for the pair under `epoch`, into `out`; false when
  // there is none.
  [[nodiscard]] bool find(std::uint64_t epoch, const std::string& app,
                          const std::string& destination, Decision& out);
  // Files `d` for the pair under `epoch`, unless the pair is too long.
  void remember(std::uint64_t epoch, const std::string& app, const std::string& destination,
                const Decision& d);
  // Forgets every decision (the table and its strings' room are kept).
  void clear();

 private:
  static constexpr std::size_t kMinSets = 128;   // a power of two
  static constexpr std::size_t kMaxSets = 4096;  // a power of two
  static constexpr std::size_t kWays = 4;
  static constexpr std::size_t kHitsPerGrowth = 16;  // replacements per hit that still grow
  static constexpr std::size_t kMaxKey = 256;        // characters of application and destination

  struct Entry {
    std::string key;             // application followed by destination
    std::uint64_t hash = 0;      // of the application, then the destination
    std::size_t appLength = 0;   // where the destination starts in key
    std::uint64_t epoch = 0;     // of the map that made the decision
    std::uint64_t lastUsed = 0;  // 0: empty
    Decision decision;

    bool holds(std::uint64_t h, std::uint64_t e, const std::string& app,
               const std::string& destination) const;
  };

  static bool tooLong(const std::string& app, const std::string& destination) {
    return app.size() > kMaxKey || destination.size() > kMaxKey - app.size();
  }
  static std::uint64_t hashOf(const std::string& app, const std::string& destination);
  Entry* set(std::uint64_t hash) { return &entries_[(hash & (sets_ - 1)) * kWays]; }
  // The entry of hash's set that a decision under `epoch` replaces: one of
  // another epoch first, then the least recently used.
  Entry* victim(std::uint64_t hash, std::uint64_t epoch);
  // Doubles the sets, refiling every kept entry of `epoch`; false when
  // memory ran out.
  bool grow(std::uint64_t epoch);

  // sets_ * kWays entries once used (the first find makes them); set i at
  // [i * kWays, (i + 1) * kWays).
  std::vector<Entry> entries_;
  std::size_t sets_ = kMinSets;
  // Since the table last grew or was judged: kept entries replaced, and hits.
  std::size_t replaced_ = 0;
  std::size_t hits_ = 0;
  std::uint64_t clock_ = 0;  // last lastUsed given; later uses get higher values
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_DECISION_MEMO_H_
