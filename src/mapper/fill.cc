#include "mapper/fill.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <new>
#include <system_error>
#include <thread>

#include "base/log.h"
#include "tpa/api/constants.h"

namespace tpa::mapper {

namespace {

// An automaton whose states could not be allocated would fail its first key.
bool automataAllocated(const Map& map) {
  for (const Map::Machine* m : {map.appsMachine(), map.includeMachine(), map.excludeMachine()}) {
    if (m == nullptr || !m->allocated()) return false;
  }
  return true;
}

// A second thread pays for itself when both halves are large.
std::atomic<long long> twoThreadMinimum{1 << 16};

// Two list machines made at once hold their construction arrays at once,
// about 20 bytes per character each at their peaks: the second thread is
// only taken while what the smaller adds to the build's peak stays within
// this, so that a large document is made one machine after the other, at
// the peak of the larger alone (the time of the smaller, a third of the
// lists' at most, is what that costs).
constexpr long long kOverlapBudgetBytes = 4 << 20;
constexpr long long kPeakBytesPerCharacter = 20;

bool worthTwoThreads(const MachineSizes& sizes) {
  const long long minimum = twoThreadMinimum.load(std::memory_order_relaxed);
  const long long include = sizes.include;
  const long long exclude = sizes.exclude;
  const bool large = include >= minimum && static_cast<long long>(sizes.apps) + exclude >= minimum;
  return large && std::min(include, exclude) * kPeakBytesPerCharacter <= kOverlapBudgetBytes;
}

// Where a step of the fill stopped, in the order in which Map::put meets
// the parts of its rules (the rule's index * 3 + 0 for its applications, 1
// its include list, 2 its exclude list), with what, and the messages it kept.
struct Stop {
  std::size_t at = SIZE_MAX;  // SIZE_MAX: did not stop
  int code = error::TPA_ERROR_NONE;
  std::exception_ptr thrown;
  std::vector<log::Message> messages;

  bool stopped() const { return at != SIZE_MAX; }
};

// How many keys each list held before each rule, to tell which rule a
// list's failing key belongs to.
struct KeysBefore {
  std::vector<std::size_t> include;
  std::vector<std::size_t> exclude;

  // The rule of the list's key number `key`.
  std::size_t ruleOf(bool inInclude, std::size_t key) const {
    const std::vector<std::size_t>& before = inInclude ? include : exclude;
    return static_cast<std::size_t>(std::upper_bound(before.begin(), before.end(), key) -
                                    before.begin()) -
           1;
  }
};

// Puts every rule in order, the lists only collecting their text, and lets
// each rule's strings go as soon as the map holds them (then the rules
// themselves), so that a large document is never held twice in memory. Stops
// at the first failure, which only the applications can meet (the lists'
// failures come with their machines' making); the rules' keys are counted.
Stop putRules(RuleSource& rules, Map& map, KeysBefore& keys) {
  Stop stop;
  log::Deferral kept;
  std::size_t include = 0, exclude = 0;
  try {
    for (std::size_t i = 0; i < rules.size(); ++i) {
      const RuleSource::Rule rule = rules.at(i);
      keys.include.push_back(include);
      keys.exclude.push_back(exclude);
      const int result = map.put(rule.number, rule.apps, rule.include, rule.exclude, rule.id);
      if (result != error::TPA_ERROR_NONE) {
        stop.at = 3 * i;
        stop.code = result;
        break;
      }
      include += rule.include.size();
      exclude += rule.exclude.size();
      rules.release(i);
    }
  } catch (...) {
    stop.at = 0;
    stop.thrown = std::current_exception();
  }
  stop.messages = kept.take();
  rules.releaseAll();
  return stop;
}

// Makes one list's machine; a failure is placed where a one-thread put of
// an online machine would have met it.
Stop finishList(bool include, Map& map, const KeysBefore& keys) {
  Stop stop;
  log::Deferral kept;
  std::size_t keysPut = 0;
  stop.code = map.finishList(include, keysPut);
  if (stop.code != error::TPA_ERROR_NONE) {
    stop.at = 3 * keys.ruleOf(include, keysPut) + (include ? 1 : 2);
    stop.messages = kept.take();
  }
  return stop;
}

// Makes the include machine on a second thread while this one makes the
// exclude machine, when both are worth it; allocation failure on either
// propagates as std::bad_alloc.
void finishLists(Map& map, const KeysBefore& keys, bool twoThreads, Stop& include, Stop& exclude) {
  std::exception_ptr thrown;
  std::thread second;
  if (twoThreads) {
    try {
      second = std::thread([&] {
        try {
          include = finishList(true, map, keys);
        } catch (...) {
          thrown = std::current_exception();
        }
      });
    } catch (const std::system_error&) {
      twoThreads = false;
    }
  }
  if (!twoThreads) include = finishList(true, map, keys);
  try {
    exclude = finishList(false, map, keys);
  } catch (...) {
    if (second.joinable()) second.join();
    throw;
  }
  if (second.joinable()) second.join();
  if (thrown) std::rethrow_exception(thrown);
}

}  // namespace

int fill(Map& map, const MachineSizes& sizes, RuleSource& rules) {
  int result =
      map.construct(sizes.apps, sizes.include, sizes.exclude, fsa::Construction::kFromText);
  if (result != error::TPA_ERROR_NONE) return result;
  if (!automataAllocated(map)) throw std::bad_alloc();
  // A list's failure is met before any failure of the put (whose keys were
  // never collected), and of two lists' failures the earlier in rule order
  // is reported.
  KeysBefore keys;
  const Stop put = putRules(rules, map, keys);
  releaseFreedMemory();  // the rules' strings, before the machines' arrays
  Stop include, exclude;
  finishLists(map, keys, worthTwoThreads(sizes), include, exclude);
  const Stop& list = include.at < exclude.at ? include : exclude;
  const Stop& first = list.stopped() ? list : put;
  if (first.stopped()) {
    log::write(first.messages);
    if (first.thrown) std::rethrow_exception(first.thrown);
    return first.code;
  }
  map.freeze();
  return error::TPA_ERROR_NONE;
}

void setTwoThreadMinimum(long long symbols) {
  twoThreadMinimum.store(symbols, std::memory_order_relaxed);
}

}  // namespace tpa::mapper
