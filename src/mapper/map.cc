#include "mapper/map.h"

#include <android/log.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <optional>

#include "base/log.h"
#include "cidr/cidr.h"
#include "mapper/decision_memo.h"
#include "mapper/trace.h"
#include "mapper/transform.h"
#include "tpa/api/constants.h"

namespace tpa::mapper {

namespace {

using Machine = machine::Machine;
using Key = std::pair<std::string, int>;

// What clearCache answers, on success as well.
constexpr int kClearCacheResult = -1;

bool isAnyApp(const std::string& app) { return app == sigma::sentinel::LAMBDA_STRING; }

// The number a rule's destinations are filed under: 0 when its only
// application is LAMBDA_STRING, else its rule number. Checked again here
// although the rules' reader already numbers such rules 0.
int domainRuleOf(int ruleNumber, const std::vector<std::string>& apps) {
  return apps.size() == 1 && isAnyApp(apps[0]) ? TPA_RULE_NUMBER_ZERO : ruleNumber;
}

// Adds ##LAMBDA-APP$ with rule number 0 unless the lookup of it, through the
// cache like any other, reads anything at all. Every application key starts
// with '#', so once any application is stored the branch counts as present;
// and an "absent" answer stays cached after the branch is added.
int addAnyAppBranch(Machine& apps, Key& key) {
  tansformAppInto(key.first, sigma::sentinel::LAMBDA_STRING);
  key.second = machine::kFullKey;
  fsa::SAStateValue<int> value;
  int matched = 0;
  int result = apps.findFull(key, value, matched);
  if (result != error::TPA_ERROR_NONE) {
    log::write(log::kFatal, log::kEngineTag,
               "[FATAL] [MAP] FindFull failed. Does not have any app %s", log::kLineEnd);
    return result;
  }
  if (matched != 0) return error::TPA_ERROR_NONE;
  result = apps.put(key, TPA_RULE_NUMBER_ZERO);
  if (result != error::TPA_ERROR_NONE) {
    log::write(log::kFatal, log::kEngineTag,
               "[FATAL] [MAP] could not add anyApp branch in apps machine%s", log::kLineEnd);
    log::write(log::kFatal, log::kEngineTag,
               "[FATAL] [MAP] AddAnyApp failed. Could not add any app %s", log::kLineEnd);
  }
  return result;
}

// Stores one list of one rule; stops at the first failing key.
int addDomains(Machine& machine, BitNames& bitNames, const std::vector<std::string>& domains,
               int ruleNumber, std::uint8_t flag, int id, std::string& text, Key& key) {
  for (const std::string& d : domains) {
    storedDestination(d, text);
    bitNames.add(text);
    key.second = !text.empty() && text[0] == '*' ? machine::kPartialKey : machine::kFullKey;
    transformDomainInto(key.first, text, ruleNumber, flag);
    const int result = machine.put(key, id);
    if (result != error::TPA_ERROR_NONE) return result;
  }
  return error::TPA_ERROR_NONE;
}

// Room kept in the query buffers for the keys of ordinary queries (an
// address's 128 bits framed with a rule number fit), so that a query answered
// from the automata alone, when memory is short, needs no allocation.
constexpr std::size_t kReservedKeyLength = 272;

void reserve(QueryBuffers& b) {
  for (std::string* s :
       {&b.appKey.first, &b.destination, &b.key.first, &b.bits.first, &b.prefixKey.first}) {
    s->reserve(kReservedKeyLength);
  }
}

// The machines' lookups read their automata alone while this lives.
class CacheBypass {
 public:
  CacheBypass(Machine& apps, Machine& include, Machine& exclude)
      : machines_{&apps, &include, &exclude} {
    for (Machine* m : machines_) m->bypassCache(true);
  }
  ~CacheBypass() {
    for (Machine* m : machines_) m->bypassCache(false);
  }
  CacheBypass(const CacheBypass&) = delete;
  CacheBypass& operator=(const CacheBypass&) = delete;

 private:
  Machine* machines_[3];
};

// Map::forgetDecisions hands these out: unique in the process, never 0.
std::atomic<std::uint64_t> nextMemoEpoch{1};

// A querying thread's own: the key buffers of its queries, reserved once, and
// its memo of decisions of any map, each filed under its map's epoch.
struct QueryScratch {
  QueryScratch() { reserve(buffers); }
  QueryBuffers buffers;
  DecisionMemo memo;
};

// Each thread's scratch hangs on a thread-specific key, whose destructor
// frees it when the thread ends. Not a thread_local object: glibc registers
// such an object's destructor on the thread's first use with an allocation of
// its own, and aborts the process when that fails.
class ScratchKey {
 public:
  ScratchKey() : made_(pthread_key_create(&key_, destroy) == 0) {}
  QueryScratch* get() const {
    return made_ ? static_cast<QueryScratch*>(pthread_getspecific(key_)) : nullptr;
  }
  bool set(QueryScratch* scratch) const { return made_ && pthread_setspecific(key_, scratch) == 0; }

 private:
  static void destroy(void* scratch) { delete static_cast<QueryScratch*>(scratch); }

  pthread_key_t key_;
  bool made_;  // false when the process had no key left: no scratch is kept
};

// Made on the thread's first query; throws std::bad_alloc when it cannot be
// (and is tried again on the next).
QueryScratch& scratchOfThisThread() {
  static const ScratchKey key;
  if (QueryScratch* scratch = key.get()) return *scratch;
  auto made = std::make_unique<QueryScratch>();
  if (!key.set(made.get())) throw std::bad_alloc();
  return *made.release();
}

}  // namespace

void storedDestination(const std::string& d, std::string& text) {
  if (cidr::isCidrIpAddress(d) != 0) {
    text = cidr::extractNetworkID(d);
    return;
  }
  if (cidr::expandIPv6Into(text, d)) return;
  if (cidr::isIPv4Address(d)) {
    cidr::expandIpv4AddrInto(text, d);
    return;
  }
  text.assign(d);
}

Map::Map(int capacity) : capacity_(capacity) {}

Map::~Map() = default;

int Map::construct(int appsSize, int includeSize, int excludeSize, fsa::Construction lists) {
  apps_ = std::make_unique<Machine>();
  include_ = std::make_unique<Machine>();
  exclude_ = std::make_unique<Machine>();
  apps_->construct(appsSize, capacity_);
  include_->construct(includeSize, capacity_, lists);
  exclude_->construct(excludeSize, capacity_, lists);
  reserve(buffers_);
  includeBits_ = BitNames();
  excludeBits_ = BitNames();
  forgetDecisions();
  return error::TPA_ERROR_NONE;
}

int Map::put(int ruleNumber, const std::vector<std::string>& apps,
             const std::vector<std::string>& include, const std::vector<std::string>& exclude,
             int id) {
  if (!apps_ || !include_ || !exclude_) return error::TPA_ERROR_OOM;
  if (queried_.load()) memoUsable_.store(false);
  Key& key = buffers_.key;
  int result = putApps(ruleNumber, apps, key);
  if (result != error::TPA_ERROR_NONE) return result;
  const int domainRule = domainRuleOf(ruleNumber, apps);
  std::string& text = buffers_.destination;
  result = putList(true, domainRule, include, id, text, key);
  if (result != error::TPA_ERROR_NONE) return result;
  return putList(false, domainRule, exclude, id, text, key);
}

int Map::putApps(int ruleNumber, const std::vector<std::string>& apps, Key& key) {
  if (!apps_) return error::TPA_ERROR_OOM;
  for (const std::string& app : apps) {
    int result;
    if (isAnyApp(app)) {
      result = addAnyAppBranch(*apps_, key);
    } else {
      tansformAppInto(key.first, app);
      key.second = machine::kFullKey;
      result = apps_->put(key, ruleNumber);
    }
    if (result != error::TPA_ERROR_NONE) return result;
  }
  return error::TPA_ERROR_NONE;
}

int Map::putList(bool include, int domainRule, const std::vector<std::string>& list, int id,
                 std::string& text, Key& key) {
  Machine* machine = include ? include_.get() : exclude_.get();
  if (machine == nullptr) return error::TPA_ERROR_OOM;
  return addDomains(*machine, include ? includeBits_ : excludeBits_, list, domainRule,
                    include ? TPA_DECISION_INCLUDE : TPA_DECISION_EXCLUDE, id, text, key);
}

void Map::freeze() {
  if (!apps_ || !include_ || !exclude_) return;
  // Smallest first: the larger machines' online states then meet only the
  // smaller ones' frozen forms at the peak.
  Machine* machines[] = {apps_.get(), include_.get(), exclude_.get()};
  std::sort(std::begin(machines), std::end(machines), [](const Machine* a, const Machine* b) {
    int sa = 0, sb = 0;
    (void)a->size(sa);
    (void)b->size(sb);
    return sa < sb;
  });
  for (Machine* m : machines) m->freeze();
  buffers_ = QueryBuffers();  // put's: nothing is put any more
}

int Map::finishList(bool include, std::size_t& keysPut) {
  Machine* machine = include ? include_.get() : exclude_.get();
  return machine == nullptr ? error::TPA_ERROR_NONE : machine->finish(keysPut);
}

int Map::clearCache() {
  if (!apps_ || !include_ || !exclude_) return error::TPA_ERROR_OOM;
  apps_->clearCache();
  include_->clearCache();
  exclude_->clearCache();
  forgetDecisions();
  return kClearCacheResult;
}

void Map::forgetDecisions() {
  memoEpoch_.store(nextMemoEpoch.fetch_add(1, std::memory_order_relaxed));
  queried_.store(false);
  memoUsable_.store(true);
}

void Map::shareBetweenThreads() {
  for (Machine* m : {apps_.get(), include_.get(), exclude_.get()}) {
    if (m != nullptr) m->bypassCache(true);
  }
  shared_ = true;
}

Decision Map::get(const std::string& app, const std::string& destination, QueryTrace* trace) const {
  if (!apps_ || !include_ || !exclude_) return Decision();
  QueryScratch* scratch = nullptr;
  try {
    scratch = &scratchOfThisThread();
    const bool memo = memoUsable_.load() && trace == nullptr;
    const std::uint64_t epoch = memoEpoch_.load();
    Decision d;
    const DecisionMemo::Pair pair(app, destination);
    if (memo && scratch->memo.find(epoch, pair, d)) return d;
    if (!queried_.load(std::memory_order_relaxed)) queried_.store(true);
    MapDecisionMaker maker(*apps_, *include_, *exclude_, scratch->buffers, includeBits_,
                           excludeBits_);
    d = maker.decide(app, destination, trace);
    if (memo) scratch->memo.remember(epoch, pair, d);
    return d;
  } catch (const std::bad_alloc&) {
    // A cache, the memo or a key buffer could not grow; each is left
    // consistent. The caches hold only what the automata answer, so the
    // automata alone give the same decision.
  }
  try {
    if (trace != nullptr) *trace = QueryTrace();
    // A shared map's machines already read their automata alone.
    std::optional<CacheBypass> bypass;
    if (!shared_) bypass.emplace(*apps_, *include_, *exclude_);
    QueryBuffers own;
    MapDecisionMaker maker(*apps_, *include_, *exclude_, scratch ? scratch->buffers : own,
                           includeBits_, excludeBits_);
    return maker.decide(app, destination, trace);
  } catch (const std::bad_alloc&) {
    return Decision();  // not even the query's own keys could be framed
  }
}

}  // namespace tpa::mapper
