#include "mapper/decision.h"

#include <cstdint>
#include <functional>
#include <new>
#include <string_view>

#include "cidr/cidr.h"
#include "mapper/trace.h"
#include "mapper/transform.h"
#include "tpa/api/constants.h"

namespace tpa::mapper {

// --- Decision ---------------------------------------------------------------

Decision::Decision() : value(MAP_DEFAULT_DOMAIN_VALUE), decision(TPA_DECISION_EXCLUDE) {}

Decision::Decision(int value, int decision) : value(value), decision(decision) {}

Decision::Decision(const Decision& other) : value(other.value), decision(other.decision) {}

Decision& Decision::operator=(const Decision& other) {
  if (this != &other) {
    value = other.value;
    decision = other.decision;
  }
  return *this;
}

bool Decision::isInIncludeList() const { return decision == TPA_DECISION_INCLUDE; }

bool Decision::isInExcludeList() const { return decision != TPA_DECISION_INCLUDE; }

// --- DomainSearchResult -----------------------------------------------------

DomainSearchResult::DomainSearchResult() : DomainSearchResult(false, 0, -1, 0) {}

DomainSearchResult::DomainSearchResult(bool found, int matchedLength, int value, int storedLength)
    : found(found), matchedLength(matchedLength), value(value), storedLength(storedLength) {}

DomainSearchResult::DomainSearchResult(const DomainSearchResult& other) = default;

DomainSearchResult& DomainSearchResult::operator=(const DomainSearchResult& other) {
  if (this != &other) {
    found = other.found;
    matchedLength = other.matchedLength;
    value = other.value;
    storedLength = other.storedLength;
  }
  return *this;
}

DomainSearchResult::~DomainSearchResult() {
  found = false;
  matchedLength = 0;
  value = -1;
  storedLength = 0;
}

bool DomainSearchResult::operator==(const DomainSearchResult& other) const {
  return found == other.found && matchedLength == other.matchedLength &&
         storedLength == other.storedLength;
}

bool DomainSearchResult::operator!=(const DomainSearchResult& other) const {
  return !(*this == other);
}

bool DomainSearchResult::operator>(const DomainSearchResult& other) const {
  return storedLength > other.storedLength || matchedLength > other.matchedLength;
}

bool DomainSearchResult::operator<(const DomainSearchResult& other) const {
  return storedLength <= other.storedLength && matchedLength <= other.matchedLength;
}

// --- the search -------------------------------------------------------------

namespace {

using Machine = machine::KeyedMachine;
using Key = std::pair<std::string, int>;
using StateValue = fsa::SAStateValue<int>;

// The member of a trace record, or null when not tracing.
template <typename Record, typename Field>
Field* traced(Record* record, Field Record::*field) {
  return record == nullptr ? nullptr : &(record->*field);
}

// A cached search of the kind the key carries: whole key (kFullKey) or
// partial (kPartialKey). Returns the machine's code.
int search(Machine& machine, const Key& key, StateValue& out, int& matched, SearchTrace* trace) {
  const int code = key.second == machine::kPartialKey ? machine.findPartial(key, out, matched)
                                                      : machine.findFull(key, out, matched);
  if (trace != nullptr) {
    *trace = SearchTrace{true, code, matched, out.storedKeyLength(), out.userDefinedValue()};
  }
  return code;
}

// The whole-key test: `key` is a stored key, found whole with its own
// length; `value` gets the value there. A traced search records the lookup it
// is made of. Returns the machine's code.
int searchWhole(Machine& machine, const Key& key, bool& whole, int& value, SearchTrace* trace) {
  StateValue v;
  if (trace == nullptr) {
    const int code = machine.findWhole(key, v, whole);
    value = v.userDefinedValue();
    return code;
  }
  int matched = 0;
  const int code = search(machine, key, v, matched, trace);
  const int n = static_cast<int>(key.first.size());
  whole = v.storedKeyLength() != 0 && matched == n && v.storedKeyLength() == n;
  value = v.userDefinedValue();
  return code;
}

// Addresses are compared in their fixed-width forms; anything else verbatim.
// The bit string serves the network-prefix search.
void normaliseDestination(const std::string& destination, QueryBuffers& b) {
  if (!cidr::expandIPv6Into(b.destination, destination)) {  // else left unchanged
    if (cidr::isIPv4Address(destination)) cidr::expandIpv4AddrInto(b.destination, destination);
  }
  b.address = cidr::isIPAddress(b.destination);
  for (QueryBuffers::BitsSearch& done : b.bitsSearches) done.machine = nullptr;
  b.bits.second = machine::kFullKey;
  if (b.address) {
    cidr::convertToBinaryIPAddressInto(b.bits.first, b.destination);
  } else {
    b.bits.first.clear();
  }
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
// query when there is one (a traced query searches every time).
QueryBuffers::BitsSearch searchBits(Machine& machine, QueryBuffers& b, ListTrace* trace) {
  QueryBuffers::BitsSearch* slot = nullptr;
  if (trace == nullptr) {
    for (QueryBuffers::BitsSearch& done : b.bitsSearches) {
      if (done.machine == &machine) return done;
      if (done.machine == nullptr && slot == nullptr) slot = &done;
    }
  }
  StateValue v;
  QueryBuffers::BitsSearch result;
  result.machine = &machine;
  result.code = search(machine, b.bits, v, result.run, traced(trace, &ListTrace::bitsSearch));
  result.storedKeyLength = v.storedKeyLength();
  if (slot != nullptr && result.code == error::TPA_ERROR_NONE) *slot = result;
  return result;
}

// The longest leading run of the address bits present in the machine, tried
// as a stored network of this rule and list. Only that one run is tried: a
// shorter stored network behind a longer run does not match.
DomainSearchResult findNetwork(int rule, Machine& machine, std::uint8_t flag, QueryBuffers& b,
                               ListTrace* trace) {
  const int bitCount = static_cast<int>(b.bits.first.size());
  if (bitCount == 0) return DomainSearchResult();
  const QueryBuffers::BitsSearch bits = searchBits(machine, b, trace);
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
  if (searchWhole(machine, b.prefixKey, whole, value, traced(trace, &ListTrace::prefix)) != 0 ||
      !whole) {
    return DomainSearchResult();
  }
  return DomainSearchResult(true, k, value, k);
}

// Searches one list of one rule number: the whole key, then the network
// prefix of an address, then a wildcard entry.
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
  if (searchWhole(machine, b.key, whole, value, traced(trace, &ListTrace::whole)) != 0) {
    return DomainSearchResult();
  }
  if (whole) return settle(trace, MatchKind::kWholeKey, DomainSearchResult(true, n, value, n));
  // A traced query searches the bits whatever they are, to show the search.
  if (b.address &&
      (trace != nullptr || bitNames == nullptr || bitNames->anyPrefixOf(b.bits.first))) {
    const DomainSearchResult network = findNetwork(rule, machine, flag, b, trace);
    if (network.found) return settle(trace, MatchKind::kNetworkPrefix, network);
  }
  // A wildcard match must be strictly shorter than both the stored and the
  // searched key.
  // Most keys end like no wildcard entry: that is known without the lookup.
  if (trace == nullptr && !machine.mayFindWildcard(b.key.first)) return DomainSearchResult();
  b.key.second = machine::kPartialKey;
  StateValue pv;
  int p = 0;
  if (search(machine, b.key, pv, p, traced(trace, &ListTrace::partial)) != 0) {
    return DomainSearchResult();
  }
  const int s = pv.storedKeyLength();
  if (s != 0 && p != 0 && p < s && p < n) {
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

// --- BitNames ---------------------------------------------------------------

std::uint64_t BitNames::mix(std::uint64_t h, std::size_t length) {
  h ^= length * 0x9e3779b97f4a7c15u;
  h *= 0xbf58476d1ce4e5b9u;
  h ^= h >> 31;
  return h == 0 ? 1 : h;
}

void BitNames::add(const std::string& text) {
  if (text.size() < 2) return;
  std::uint64_t h = 0;
  for (const char c : text) {
    if (c != '0' && c != '1') return;
    h = step(h, c);
  }
  const std::uint64_t key = mix(h, text.size());
  if (2 * (used_ + 1) > table_.size()) {
    std::vector<std::uint64_t> old(table_.empty() ? 64 : 2 * table_.size(), 0);
    old.swap(table_);
    for (const std::uint64_t k : old) {
      std::size_t i = k & (table_.size() - 1);
      while (table_[i] != 0) i = (i + 1) & (table_.size() - 1);
      table_[i] = k;
    }
  }
  std::size_t i = key & (table_.size() - 1);
  for (; table_[i] != 0; i = (i + 1) & (table_.size() - 1)) {
    if (table_[i] == key) return;
  }
  table_[i] = key;
  ++used_;
  if (lengths_.size() <= text.size()) lengths_.resize(text.size() + 1);
  lengths_[text.size()] = true;
}

bool BitNames::contains(std::uint64_t key) const {
  for (std::size_t i = key & (table_.size() - 1);; i = (i + 1) & (table_.size() - 1)) {
    if (table_[i] == key) return true;
    if (table_[i] == 0) return false;
  }
}

bool BitNames::anyPrefixOf(const std::string& bits) const {
  if (used_ == 0 || bits.size() < 3) return false;
  const std::size_t last = std::min(bits.size() - 1, lengths_.size() - 1);
  std::uint64_t h = step(0, bits[0]);
  for (std::size_t length = 2; length <= last; ++length) {
    h = step(h, bits[length - 1]);
    if (lengths_[length] && contains(mix(h, length))) return true;
  }
  return false;
}

// --- DecisionMemo -----------------------------------------------------------

bool DecisionMemo::find(std::uint64_t epoch, const std::string& app, const std::string& destination,
                        Decision& out) {
  probeKept_ = app.size() <= kMaxKey && destination.size() <= kMaxKey - app.size();
  if (!probeKept_) return false;
  try {
    if (entries_.empty()) entries_.resize(sets_ * kWays);
    probe_.assign(app);
    probe_.append(destination);
  } catch (const std::bad_alloc&) {
    probeKept_ = false;  // no room for the memo: the machines answer
    return false;
  }
  probeAppLength_ = app.size();
  probeEpoch_ = epoch;
  // The application's length tells "ab" + "c" from "a" + "bc".
  probeHash_ = std::hash<std::string_view>{}(probe_) ^ (probeAppLength_ * 0x9e3779b97f4a7c15u);
  Entry* ways = set(probeHash_);
  for (std::size_t i = 0; i < kWays; ++i) {
    Entry& e = ways[i];
    if (e.lastUsed != 0 && e.hash == probeHash_ && e.epoch == probeEpoch_ &&
        e.appLength == probeAppLength_ && e.key == probe_) {
      e.lastUsed = ++clock_;
      out = e.decision;
      ++hits_;
      return true;
    }
  }
  return false;
}

void DecisionMemo::remember(const Decision& d) {
  if (!probeKept_) return;
  probeKept_ = false;
  Entry* ways = set(probeHash_);
  // Entries of other epochs answer no query of this one: they go first.
  const auto age = [this](const Entry& e) { return e.epoch == probeEpoch_ ? e.lastUsed : 0; };
  Entry* victim = ways;
  for (std::size_t i = 1; i < kWays; ++i) {
    if (age(ways[i]) < age(*victim)) victim = &ways[i];
  }
  if (age(*victim) != 0 && ++replaced_ >= entries_.size()) {
    // A table that keeps replacing entries grows, unless it hardly answers
    // anything (a stream of new pairs would only fill a larger one).
    const bool useful = hits_ >= replaced_ / kHitsPerGrowth;
    replaced_ = 0;
    hits_ = 0;
    if (useful && sets_ < kMaxSets && grow()) {
      remember(d);  // filed in the grown table
      return;
    }
  }
  try {
    victim->key.assign(probe_);
  } catch (const std::bad_alloc&) {
    victim->lastUsed = 0;  // its old key is kept no longer either
    return;
  }
  victim->hash = probeHash_;
  victim->appLength = probeAppLength_;
  victim->epoch = probeEpoch_;
  victim->lastUsed = ++clock_;
  victim->decision = d;
}

bool DecisionMemo::grow() {
  std::vector<Entry> old;
  try {
    old.resize(sets_ * 2 * kWays);
  } catch (const std::bad_alloc&) {
    return false;
  }
  old.swap(entries_);
  sets_ *= 2;
  // An old set splits into two new ones, each taking at most kWays entries.
  for (Entry& e : old) {
    if (e.lastUsed == 0 || e.epoch != probeEpoch_) continue;
    Entry* ways = set(e.hash);
    for (std::size_t i = 0; i < kWays; ++i) {
      if (ways[i].lastUsed == 0) {
        ways[i] = std::move(e);
        break;
      }
    }
  }
  probeKept_ = true;
  return true;
}

void DecisionMemo::clear() {
  for (Entry& e : entries_) e.lastUsed = 0;
  probeKept_ = false;
  replaced_ = 0;
  hits_ = 0;
}

// --- MapDecisionMaker -------------------------------------------------------

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
  if (searchWhole(apps_, b.appKey, whole, value, traced(trace, &QueryTrace::app)) != 0) {
    return finish(trace, Decision());
  }
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
