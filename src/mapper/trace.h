// QueryTrace: what one query did, step by step, for tools that explain a
// decision. Map::get fills it when given a non-null pointer; the query runs
// the same code either way and only records when the pointer is set.
// Plain data owned by the caller; one trace per query, not shared.
#ifndef TPA_MAPPER_TRACE_H_
#define TPA_MAPPER_TRACE_H_

#include <string>
#include <vector>

namespace tpa::mapper {

// One cached search of a keyed machine.
struct SearchTrace {
  bool attempted = false;  // false: the search was not reached
  int code = 0;            // the machine's result; non-zero means the search failed
  int matched = 0;         // characters of the searched string read
  int storedLength = 0;    // stored key length at the state reached
  int value = -1;          // value at the state reached
};

// Why a list answered, or why a step answered nothing.
enum class Verdict {
  kNeither,        // no list matched at this rule number
  kOnlyInclude,    // only the include list matched
  kOnlyExclude,    // only the exclude list matched
  kIncludeEqual,   // both matched with equal lengths: include wins ties
  kIncludeLonger,  // both matched; include longer on stored or matched length
  kExcludeLonger,  // both matched; exclude no shorter on both and longer on one
};

// Which search of a list produced its match.
enum class MatchKind { kNone, kWholeKey, kNetworkPrefix, kPartialKey };

// The search of one domain machine (one list of one rule number).
struct ListTrace {
  std::string key;         // the framed destination key
  SearchTrace whole;       // whole-key search of key
  bool address = false;    // the destination is an address: prefix search applies
  std::string bits;        // the address as a bit string
  SearchTrace bitsSearch;  // search of bits; its matched is the longest run m
  std::string prefixKey;   // framed first m bits (empty when m was not usable)
  SearchTrace prefix;      // whole-key search of prefixKey
  SearchTrace partial;     // partial (wildcard) search of key
  MatchKind match = MatchKind::kNone;
  bool found = false;
  int matchedLength = 0;  // the list's result, as weighed against the other list
  int storedLength = 0;
  int value = -1;
};

// One rule number tried: both lists and how they were weighed.
struct StepTrace {
  int rule = 0;
  ListTrace include;
  ListTrace exclude;
  Verdict verdict = Verdict::kNeither;
};

struct QueryTrace {
  std::string appKey;            // the framed application key
  SearchTrace app;               // its whole-key search in the apps machine
  int rule = 0;                  // the rule number the application selected
  bool appFellToZero = false;    // the application matched no whole key: rule 0
  std::string destination;       // the destination after address normalisation
  std::vector<StepTrace> steps;  // the rule's step, then rule 0 when it fell back
  int value = -1;                // the decision reached
  int decision = 0;
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_TRACE_H_
