#include "mapper/decision_maker.h"

#include <cstdint>
#include <string_view>

#include "cidr/cidr.h"
#include "mapper/trace.h"
#include "mapper/transform.h"
#include "tpa/api/constants.h"

namespace tpa::mapper {

namespace {

using Machine = machine::Machine;
using Key = std::pair<std::string, int>;
using StateValue = fsa::SAStateValue<int>;

// The member of a trace record, or null when not tracing.
template <typename Record, typename Field>
Field* traced(Record* record, Field Record::*field) {
  return record == nullptr ? nullptr : &(record->*field);
}

// How a search reads a machine: through its cache, as a query does, or
// from its automaton alone, for what a trace shows beyond the query's own
// reads (which leaves the caches as an untraced query leaves them).
enum class Read { kQuery, kPeek };

// A search of the kind the key carries: whole key (kFullKey) or partial
// (kPartialKey). Returns the machine's code.
int search(Machine& machine, const Key& key, StateValue& out, int& matched, Read read) {
  const bool partial = key.second == machine::kPartialKey;
  if (read == Read::kQuery) {
    return partial ? machine.findPartial(key, out, matched) : machine.findFull(key, out, matched);
  }
  return machine.peek(key, out, matched);
}

void record(SearchTrace* trace, int code, int matched, const StateValue& v) {
  if (trace != nullptr) {
    *trace = SearchTrace{true, code, matched, v.storedKeyLength(), v.userDefinedValue()};
  }
}

// A search, recorded.
int search(Machine& machine, const Key& key, StateValue& out, int& matched, Read read,
           SearchTrace* trace) {
  const int code = search(machine, key, out, matched, read);
  record(trace, code, matched, out);
  return code;
}

// The whole-key test: `key` is a stored key, found whole with its own
// length; `value` gets the value there. Its trace shows the full lookup that
// the test stands for. Returns the machine's code.
int searchWhole(Machine& machine, const Key& key, bool& whole, int& value, Read read,
                SearchTrace* trace) {
  StateValue v;
  if (read == Read::kQuery) {
    const int code = machine.findWhole(key, v, whole);
    value = v.userDefinedValue();
    if (trace == nullptr) return code;
    if (code != error::TPA_ERROR_NONE) {
      record(trace, code, 0, StateValue());
    } else {
      int matched = 0;
      (void)search(machine, key, v, matched, Read::kPeek, trace);
    }
    return code;
  }
  int matched = 0;
  const int code = search(machine, key, v, matched, Read::kPeek, trace);
  const int n = static_cast<int>(key.first.size());
  whole = v.storedKeyLength() != 0 && matched == n && v.storedKeyLength() == n;
  value = v.userDefinedValue();
  return code;
}

// Addresses are compared in their fixed-width forms; anything else verbatim.
// The bit string serves the network-prefix search.
void normaliseDestination(const std::string& destination, QueryBuffers& b) {
  b.address = cidr::canonicalQueryInto(b.destination, b.bits.first, destination);
  for (QueryBuffers::BitsSearch& done : b.bitsSearches) done.machine = nullptr;
  b.bits.second = machine::kFullKey;
}

DomainSearchResult settle(ListTrace* trace, MatchKind kind, const DomainSearchResult& r) {
  if (trace != nullptr && r.found) {
    trace->match = kind;
    trace->found = true;
    trace->matchedLength = r.matchedLength;
    trace->storedLength = r.storedLength;
    trace->value = r.value;
  }
  return r;
}

// The search of the address bits in `machine`: the one made earlier in this
// query when there is one.
QueryBuffers::BitsSearch searchBits(Machine& machine, QueryBuffers& b, Read read,
                                    ListTrace* trace) {
  SearchTrace* const traceBits = traced(trace, &ListTrace::bitsSearch);
  QueryBuffers::BitsSearch* slot = nullptr;
  if (read == Read::kQuery) {
    for (QueryBuffers::BitsSearch& done : b.bitsSearches) {
      if (done.machine == &machine) {
        record(traceBits, done.code, done.run, StateValue(done.storedKeyLength, done.value));
        return done;
      }
      if (done.machine == nullptr && slot == nullptr) slot = &done;
    }
  }
  StateValue v;
  QueryBuffers::BitsSearch result;
  result.machine = &machine;
  result.code = search(machine, b.bits, v, result.run, read, traceBits);
  result.storedKeyLength = v.storedKeyLength();
  result.value = v.userDefinedValue();
  if (slot != nullptr && result.code == error::TPA_ERROR_NONE) *slot = result;
  return result;
}

// The longest leading run of the address bits present in the machine, tried
// as a stored network of this rule and list. Only that one run is tried: a
// shorter stored network behind a longer run does not match.
DomainSearchResult findNetwork(int rule, Machine& machine, std::uint8_t flag, QueryBuffers& b,
                               Read read, ListTrace* trace) {
  const int bitCount = static_cast<int>(b.bits.first.size());
  if (bitCount == 0) return DomainSearchResult();
  const QueryBuffers::BitsSearch bits = searchBits(machine, b, read, trace);
  const int run = bits.run;
  if (bits.code != 0) return DomainSearchResult();
  // Running onto a key end means the bits met a stored key's tail, not a network.
  if (bits.storedKeyLength != 0 || run < 2 || run >= bitCount) return DomainSearchResult();
  const std::string_view prefix(b.bits.first.data(), static_cast<std::size_t>(run));
  transformDomainInto(b.prefixKey.first, prefix, rule, flag);
  b.prefixKey.second = machine::kFullKey;
  if (trace != nullptr) trace->prefixKey = b.prefixKey.first;
  const int k = static_cast<int>(b.prefixKey.first.size());
  bool whole = false;
  int value = 0;
  const int code =
      searchWhole(machine, b.prefixKey, whole, value, read, traced(trace, &ListTrace::prefix));
  if (code != 0 || !whole) return DomainSearchResult();
  return DomainSearchResult(true, k, value, k);
}

// Whether the search of the address bits may end on a network of this rule
// and list: it ends on the longest run of the bits in the machine's text,
// which is at least as long as every kept name the bits start with, so only
// such a name can be that network. Unless one of them is stored whole here,
// the search (a walk of up to 128 steps) is skipped. A machine that fails
// says yes, and the search reports the failure. An online machine is read
// past its cache, which keeps only the searches a query makes.
bool mayEndOnNetwork(int rule, Machine& machine, const BitNames& names, std::uint8_t flag,
                     QueryBuffers& b) {
  const BitNames::Lengths lengths = names.prefixLengthsOf(b.bits.first);
  if (!lengths.any()) return false;
  const Read read = machine.frozen() != nullptr ? Read::kQuery : Read::kPeek;
  for (std::size_t length = 2; length < BitNames::kMaxBits; ++length) {
    if (!lengths.has(length)) continue;
    transformDomainInto(b.prefixKey.first, std::string_view(b.bits.first.data(), length), rule,
                        flag);
    b.prefixKey.second = machine::kFullKey;
    bool whole = false;
    int value = 0;
    if (searchWhole(machine, b.prefixKey, whole, value, read, nullptr) != 0 || whole) {
      return true;
    }
  }
  return false;
}

// Searches one list of one rule number: the whole key, then the network
// prefix of an address, then a wildcard entry. A search known to find nothing
// is skipped; a trace shows what it would have read.
DomainSearchResult find(int rule, Machine& machine, const BitNames* bitNames, std::uint8_t flag,
                        QueryBuffers& b, ListTrace* trace) {
  transformDomainInto(b.key.first, b.destination, rule, flag);
  b.key.second = machine::kFullKey;
  const int n = static_cast<int>(b.key.first.size());
  if (trace != nullptr) {
    trace->key = b.key.first;
    trace->address = b.address;
    trace->bits = b.bits.first;
  }
  bool whole = false;
  int value = 0;
  const int code =
      searchWhole(machine, b.key, whole, value, Read::kQuery, traced(trace, &ListTrace::whole));
  if (code != 0) return DomainSearchResult();
  if (whole) return settle(trace, MatchKind::kWholeKey, DomainSearchResult(true, n, value, n));
  if (b.address) {
    if (bitNames == nullptr || mayEndOnNetwork(rule, machine, *bitNames, flag, b)) {
      const DomainSearchResult network = findNetwork(rule, machine, flag, b, Read::kQuery, trace);
      if (network.found) return settle(trace, MatchKind::kNetworkPrefix, network);
    } else if (trace != nullptr) {
      (void)findNetwork(rule, machine, flag, b, Read::kPeek, trace);  // finds nothing
    }
  }
  // A wildcard match must be strictly shorter than both the stored and the
  // searched key.
  // Most keys end like no wildcard entry: that is known without the lookup.
  const Read partial = machine.mayFindWildcard(b.key.first) ? Read::kQuery : Read::kPeek;
  if (partial == Read::kPeek && trace == nullptr) return DomainSearchResult();
  b.key.second = machine::kPartialKey;
  StateValue pv;
  int p = 0;
  if (search(machine, b.key, pv, p, partial, traced(trace, &ListTrace::partial)) != 0) {
    return DomainSearchResult();
  }
  const int s = pv.storedKeyLength();
  if (partial == Read::kQuery && s != 0 && p != 0 && p < s && p < n) {
    return settle(trace, MatchKind::kPartialKey,
                  DomainSearchResult(true, p, pv.userDefinedValue(), s));
  }
  return DomainSearchResult();
}

// Include wins ties and any result longer on either count.
Verdict weigh(const DomainSearchResult& include, const DomainSearchResult& exclude) {
  if (include.found && exclude.found) {
    if (include == exclude) return Verdict::kIncludeEqual;
    if (include > exclude) return Verdict::kIncludeLonger;
    return Verdict::kExcludeLonger;
  }
  if (include.found) return Verdict::kOnlyInclude;
  if (exclude.found) return Verdict::kOnlyExclude;
  return Verdict::kNeither;
}

// Weighs both lists under `rule`; when neither matches, the any-application
// rules (rule 0) are tried once more.
Decision lookup(int rule, Machine& include, Machine& exclude, const BitNames* includeBits,
                const BitNames* excludeBits, QueryBuffers& b, QueryTrace* trace) {
  for (int r = rule;; r = TPA_RULE_NUMBER_ZERO) {
    StepTrace* step = nullptr;
    if (trace != nullptr) {
      step = &trace->steps.emplace_back();
      step->rule = r;
    }
    const DomainSearchResult in =
        find(r, include, includeBits, TPA_DECISION_INCLUDE, b, traced(step, &StepTrace::include));
    const DomainSearchResult out =
        find(r, exclude, excludeBits, TPA_DECISION_EXCLUDE, b, traced(step, &StepTrace::exclude));
    const Verdict verdict = weigh(in, out);
    if (step != nullptr) step->verdict = verdict;
    switch (verdict) {
      case Verdict::kOnlyInclude:
      case Verdict::kIncludeEqual:
      case Verdict::kIncludeLonger:
        return Decision(in.value, TPA_DECISION_INCLUDE);
      case Verdict::kOnlyExclude:
      case Verdict::kExcludeLonger:
        return Decision(out.value, TPA_DECISION_EXCLUDE);
      case Verdict::kNeither:
        break;
    }
    if (r == TPA_RULE_NUMBER_ZERO) return Decision();
  }
}

Decision finish(QueryTrace* trace, const Decision& d) {
  if (trace != nullptr) {
    trace->value = d.value;
    trace->decision = d.decision;
  }
  return d;
}

}  // namespace

MapDecisionMaker::MapDecisionMaker(Machine& apps, Machine& include, Machine& exclude)
    : MapDecisionMaker(apps, include, exclude, ownBuffers_) {}

MapDecisionMaker::MapDecisionMaker(Machine& apps, Machine& include, Machine& exclude,
                                   QueryBuffers& buffers)
    : apps_(apps), include_(include), exclude_(exclude), buffers_(buffers) {}

MapDecisionMaker::MapDecisionMaker(Machine& apps, Machine& include, Machine& exclude,
                                   QueryBuffers& buffers, const BitNames& includeBits,
                                   const BitNames& excludeBits)
    : apps_(apps),
      include_(include),
      exclude_(exclude),
      buffers_(buffers),
      includeBits_(&includeBits),
      excludeBits_(&excludeBits) {}

Decision MapDecisionMaker::decide(const std::string& app, const std::string& destination,
                                  QueryTrace* trace) {
  QueryBuffers& b = buffers_;
  tansformAppInto(b.appKey.first, app);
  b.appKey.second = machine::kFullKey;
  if (trace != nullptr) trace->appKey = b.appKey.first;
  bool whole = false;
  int value = 0;
  const int code =
      searchWhole(apps_, b.appKey, whole, value, Read::kQuery, traced(trace, &QueryTrace::app));
  if (code != 0) return finish(trace, Decision());
  // An application stored whole selects its rule; anything else, rule 0.
  const int rule = whole ? value : TPA_RULE_NUMBER_ZERO;
  normaliseDestination(destination, b);
  if (trace != nullptr) {
    trace->rule = rule;
    trace->appFellToZero = !whole;
    trace->destination = b.destination;
  }
  return finish(trace, lookup(rule, include_, exclude_, includeBits_, excludeBits_, b, trace));
}

}  // namespace tpa::mapper
