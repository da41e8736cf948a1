// Decisions: the answer to a query (include or exclude, and the id of the
// deciding rule) and how it is reached from the three keyed machines of a Map:
// the application selects a rule number; the include and exclude machines are
// searched under it (whole key, network prefix of an address, wildcard) and
// weighed; rule 0, the any-application rules, is the fallback.
// A MapDecisionMaker lives for one query and owns nothing; queries mutate the
// machines' caches, so callers serialise them.
#ifndef TPA_MAPPER_DECISION_H_
#define TPA_MAPPER_DECISION_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "machine/fsm.h"

namespace tpa::mapper {

struct QueryTrace;

class Decision {
 public:
  Decision();  // no match: value -1, exclude
  Decision(int value, int decision);
  Decision(const Decision& other);
  Decision& operator=(const Decision& other);

  bool isInIncludeList() const;  // decision == TPA_DECISION_INCLUDE
  bool isInExcludeList() const;  // anything else

  int value;     // id of the deciding rule, or MAP_DEFAULT_DOMAIN_VALUE
  int decision;  // TPA_DECISION_INCLUDE or TPA_DECISION_EXCLUDE
};

// The outcome of searching one domain machine.
class DomainSearchResult {
 public:
  DomainSearchResult();
  DomainSearchResult(bool found, int matchedLength, int value, int storedLength);
  DomainSearchResult(const DomainSearchResult& other);
  DomainSearchResult& operator=(const DomainSearchResult& other);
  ~DomainSearchResult();

  // Results compare by found, matchedLength and storedLength; value is not
  // compared, so two matches of equal extent are equal whoever stored them.
  bool operator==(const DomainSearchResult& other) const;
  bool operator!=(const DomainSearchResult& other) const;
  // Longer on either count.
  bool operator>(const DomainSearchResult& other) const;
  // The negation of >: no longer on both counts, so also true for equal results.
  bool operator<(const DomainSearchResult& other) const;

  bool found;
  int matchedLength;  // characters of the searched key that matched
  int value;          // value at the matched entry's end (the rule's id)
  int storedLength;   // length of the stored key whose end was reached
};

// Key buffers of one query, kept between queries so that their capacity is
// reused: a query whose searches all hit the caches allocates nothing.
struct QueryBuffers {
  std::pair<std::string, int> appKey;
  std::string destination;                // the destination after address normalisation
  bool address = false;                   // destination is an IPv4 or IPv6 address
  std::pair<std::string, int> key;        // framed destination key
  std::pair<std::string, int> bits;       // the address as a bit string
  std::pair<std::string, int> prefixKey;  // framed network prefix
  // The bit-string search of a domain machine, made at most once a query:
  // unlike the framed keys, the bits do not carry the rule number.
  struct BitsSearch {
    const machine::KeyedMachine* machine = nullptr;  // null: free this query
    int code = 0;
    int run = 0;
    int storedKeyLength = 0;
  };
  BitsSearch bitsSearches[2];
};

// The stored destinations of one domain machine that are bit strings (two or
// more '0' and '1' characters, as every network identifier is): the only
// texts a network-prefix search can end on. An address none of whose bit
// prefixes is one needs no search of its bits. Filled while a Map is put,
// then only read.
class BitNames {
 public:
  // Keeps `text` if it is such a string. Throws std::bad_alloc.
  void add(const std::string& text);
  // The lengths of the kept strings that are prefixes of `bits` (a bit
  // string of at most kMaxBits characters), 2 to size - 1 characters (or
  // that share a kept one's hash), a bit each.
  static constexpr std::size_t kMaxBits = 128;
  struct Lengths {
    std::uint64_t word[kMaxBits / 64] = {};
    bool has(std::size_t length) const { return (word[length / 64] >> (length % 64)) & 1; }
    bool any() const;
  };
  Lengths prefixLengthsOf(const std::string& bits) const;

 private:
  // Names of at least kHead characters are filed under the hash of their
  // first kHead too, a bit each: an address whose first kHead bits are no
  // kept name's is passed over after one bit test.
  static constexpr std::size_t kHead = 24;

  static std::uint64_t step(std::uint64_t h, char c) {
    return h * 0x100000001b3u + static_cast<unsigned char>(c);
  }
  static std::uint64_t mix(std::uint64_t h, std::size_t length);
  bool contains(std::uint64_t key) const;
  bool hasLength(std::size_t length) const {
    return length < lengths_.size() * 64 && ((lengths_[length / 64] >> (length % 64)) & 1);
  }
  // Whether some kept name of at least kHead characters may start with the
  // head whose mixed hash is `mixedHead`.
  bool mayHaveHead(std::uint64_t mixedHead) const;
  void setHead(std::uint64_t mixedHead);

  // Mixed hashes of the kept strings with their lengths, a power-of-two
  // table at most half full (0: empty); the lengths kept, a bit each; the
  // mixed hashes of the heads of the kept names of kHead or more, and a bit
  // per head (the top bits of its hash, remixed), at least sixteen bits per
  // head, a power of two (empty while there is none).
  std::vector<std::uint64_t> table_;
  std::size_t used_ = 0;
  std::vector<std::uint64_t> lengths_;
  std::vector<std::uint64_t> headHashes_;
  std::vector<std::uint64_t> heads_;
  unsigned headShift_ = 64;  // 64 - log2 of the bits of heads_
};

// Whole decisions of recent queries, keyed by (application, destination) and
// the epoch of the map that made them (Map files each map's decisions under
// an epoch no other map shares and renews it when its caches are emptied), so
// that a repeated query skips the machines and a decision only ever answers
// for the map, and the state of it, that made it. Set-associative: sets of
// kWays entries, an entry of another epoch replaced first, then the least
// recently used; pairs longer than kMaxKey characters are never kept. The
// table starts at kMinSets sets on first use and doubles whenever it has
// replaced as many entries as it holds while answering at least one query in
// kHitsPerGrowth of those, up to kMaxSets: a working set of thousands of
// pairs (dozens of apps, each with its destinations) is answered from it,
// within a budget of about 2 MB for names of typical length (kMaxSets * kWays
// entries of 72 bytes plus their keys; 6 MB if every key had kMaxKey
// characters). A hit allocates nothing; when memory runs out the memo keeps
// what it has and never throws. Each querying thread has its own (see Map),
// so no two threads write one. Not thread-safe.
class DecisionMemo {
 public:
  // The decision kept for the pair under `epoch`, into `out`; false when there
  // is none. The pair and epoch are also kept as the key that the next
  // remember() files under.
  [[nodiscard]] bool find(std::uint64_t epoch, const std::string& app,
                          const std::string& destination, Decision& out);
  // Files `d` under the pair of the last find(), unless that pair was too long.
  void remember(const Decision& d);
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
    std::uint64_t hash = 0;      // of key and appLength
    std::size_t appLength = 0;   // where the destination starts in key
    std::uint64_t epoch = 0;     // of the map that made the decision
    std::uint64_t lastUsed = 0;  // 0: empty
    Decision decision;
  };

  Entry* set(std::uint64_t hash) { return &entries_[(hash & (sets_ - 1)) * kWays]; }
  // Doubles the sets, refiling every kept entry; false when memory ran out.
  bool grow();

  // sets_ * kWays entries once used; set i at [i * kWays, (i + 1) * kWays).
  std::vector<Entry> entries_;
  std::size_t sets_ = kMinSets;
  // Since the table last grew or was judged: kept entries replaced, and hits.
  std::size_t replaced_ = 0;
  std::size_t hits_ = 0;
  std::string probe_;  // key of the last find(); its room is reused
  std::uint64_t probeHash_ = 0;
  std::size_t probeAppLength_ = 0;
  std::uint64_t probeEpoch_ = 0;
  bool probeKept_ = false;   // probe_ may be filed: it is not too long
  std::uint64_t clock_ = 0;  // last lastUsed given; later uses get higher values
};

class MapDecisionMaker {
 public:
  using Machine = machine::KeyedMachine;

  MapDecisionMaker(Machine& apps, Machine& include, Machine& exclude);
  // Uses the caller's buffers instead of its own.
  MapDecisionMaker(Machine& apps, Machine& include, Machine& exclude, QueryBuffers& buffers);
  // Also told the bit strings stored in each domain machine, so that an
  // address that cannot match a network skips the search of its bits.
  MapDecisionMaker(Machine& apps, Machine& include, Machine& exclude, QueryBuffers& buffers,
                   const BitNames& includeBits, const BitNames& excludeBits);
  MapDecisionMaker(const MapDecisionMaker&) = delete;
  MapDecisionMaker& operator=(const MapDecisionMaker&) = delete;

  // The decision for `app` and `destination`; `trace`, when not null, records
  // every step.
  Decision decide(const std::string& app, const std::string& destination,
                  QueryTrace* trace = nullptr);

 private:
  Machine& apps_;
  Machine& include_;
  Machine& exclude_;
  QueryBuffers ownBuffers_;  // unused when the caller lends buffers
  QueryBuffers& buffers_;
  const BitNames* includeBits_ = nullptr;  // null: every address is searched
  const BitNames* excludeBits_ = nullptr;
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_DECISION_H_
