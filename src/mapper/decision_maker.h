// MapDecisionMaker: how a decision is reached from the three keyed machines
// of a Map. The application selects a rule number; the include and exclude
// machines are searched under it (whole key, network prefix of an address,
// wildcard) and weighed; rule 0, the any-application rules, is the fallback.
// A maker lives for one query and owns nothing but, unless lent some, its key
// buffers; queries mutate the machines' caches, so callers serialise them.
// A traced query takes the same path and reads the machines as an untraced
// one does; the trace only records, and shows what a search skipped because
// it could not match would have read (from the automata, caches untouched).
#ifndef TPA_MAPPER_DECISION_MAKER_H_
#define TPA_MAPPER_DECISION_MAKER_H_

#include <string>
#include <utility>

#include "machine/machine.h"
#include "mapper/bit_names.h"
#include "mapper/decision.h"
#include "mapper/search_result.h"

namespace tpa::mapper {

struct QueryTrace;

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
    const machine::Machine* machine = nullptr;  // null: free this query
    int code = 0;
    int run = 0;
    int storedKeyLength = 0;
    int value = -1;
  };
  BitsSearch bitsSearches[2];
};

class MapDecisionMaker {
 public:
  using Machine = machine::Machine;

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

#endif  // TPA_MAPPER_DECISION_MAKER_H_
