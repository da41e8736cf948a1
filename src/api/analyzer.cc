#include "tpa/api/analyzer.h"

#include <android/log.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "api/diagnostics.h"
#include "api/facade.h"
#include "base/log.h"
#include "mapper/decision.h"
#include "mapper/map.h"
#include "parser/json_parser.h"
#include "parser/rule.h"
#include "tpa/api/constants.h"

namespace tpa::api {

namespace {

// Query caches hold this many results per machine.
constexpr int kCacheCapacity = 100;

// Every allocation failure of a build ends here: the build fails, and what it
// had allocated has been freed by unwinding.
int outOfMemory() {
  __android_log_print(log::kError, log::kEngineTag,
                      "[BUILDER] out of memory, build failed : [%d]\n", error::TPA_ERROR_OOM);
  return error::TPA_ERROR_OOM;
}

// An automaton whose states could not be allocated would fail its first key.
bool automataAllocated(const mapper::Map& map) {
  for (const mapper::Map::Machine* m :
       {map.appsMachine(), map.includeMachine(), map.excludeMachine()}) {
    if (m == nullptr || m->automaton() == nullptr || !m->automaton()->allocated()) return false;
  }
  return true;
}

// The two degenerate documents, which validate rewrites.
bool rewrittenByValidate(const std::string& text) { return text.empty() || text == "[]"; }

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

bool worthTwoThreads(const parser::JsonParser& parser) {
  const long long minimum = twoThreadMinimum.load(std::memory_order_relaxed);
  const long long include = parser.grossIncludeBytesCount();
  const long long exclude = parser.grossExcludeBytesCount();
  const bool large = include >= minimum &&
                     static_cast<long long>(parser.grossAppBytesCount()) + exclude >= minimum;
  return large && std::min(include, exclude) * kPeakBytesPerCharacter <= kOverlapBudgetBytes;
}

// Where a step of the build stopped, in the order of a one-thread put of
// online machines (the rule's index * 3 + 0 for its applications, 1 its
// include list, 2 its exclude list), with what, and the messages it kept.
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

// Puts every rule in order, the lists only collecting their text, and frees
// each rule's strings as soon as the map holds them (then the rules
// themselves), so that a large document is never held twice in memory. Stops
// at the first failure, which only the applications can meet (the lists'
// failures come with their machines' making); the rules' keys are counted.
Stop putRules(std::vector<parser::Rule>& rules, mapper::Map& map, KeysBefore& keys) {
  Stop stop;
  log::Deferral kept;
  std::size_t include = 0, exclude = 0;
  try {
    for (std::size_t i = 0; i < rules.size(); ++i) {
      parser::Rule& rule = rules[i];
      keys.include.push_back(include);
      keys.exclude.push_back(exclude);
      const int result = map.put(parser::ruleNumber(rule.apps, static_cast<int>(i) + 1), rule.apps,
                                 rule.includeList, rule.excludeList, rule.id);
      if (result != error::TPA_ERROR_NONE) {
        stop.at = 3 * i;
        stop.code = result;
        break;
      }
      include += rule.includeList.size();
      exclude += rule.excludeList.size();
      rule.clear();
    }
  } catch (...) {
    stop.at = 0;
    stop.thrown = std::current_exception();
  }
  stop.messages = kept.take();
  std::vector<parser::Rule>().swap(rules);
  return stop;
}

// Makes one list's machine; a failure is placed where a one-thread put of
// an online machine would have met it.
Stop finishList(bool include, mapper::Map& map, const KeysBefore& keys) {
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
void finishLists(mapper::Map& map, const KeysBefore& keys, bool twoThreads, Stop& include,
                 Stop& exclude) {
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

// Every rule into the map, then its machines made. The outcome, messages
// included, is that of a one-thread put of online machines: a list's failure
// is met before any failure of the put (whose keys were never collected),
// and of two lists' failures the earlier in rule order is reported.
int putAndFinish(std::vector<parser::Rule>& rules, mapper::Map& map, bool twoThreads) {
  KeysBefore keys;
  const Stop put = putRules(rules, map, keys);
  mapper::releaseFreedMemory();  // the rules' strings, before the machines' arrays
  Stop include, exclude;
  finishLists(map, keys, twoThreads, include, exclude);
  const Stop& list = include.at < exclude.at ? include : exclude;
  const Stop& first = list.stopped() ? list : put;
  if (!first.stopped()) return error::TPA_ERROR_NONE;
  log::write(first.messages);
  if (first.thrown) std::rethrow_exception(first.thrown);
  return first.code;
}

// The build proper; allocation failure propagates as std::bad_alloc.
int buildMap(const std::string& source, bool fromFile, std::unique_ptr<mapper::Map>& map) {
  parser::JsonParser parser;
  int result = parser.parse(source, fromFile);
  if (result != error::TPA_ERROR_NONE) {
    if (parser.overBudget()) {
      __android_log_print(log::kError, log::kEngineTag,
                          "[ERROR] [BUILDER] rules past the budget: further top-level arrays may "
                          "repeat at most %lld bytes of rules, an automaton holds at most %d "
                          "symbols\n",
                          static_cast<long long>(parser::JsonParser::kRepeatBudgetBytes),
                          parser::JsonParser::kMaxAutomatonSymbols);
    }
    __android_log_print(log::kError, log::kEngineTag, "[BUILDER] parse json failed : [%d]\n",
                        result);
    return result;
  }
  auto fresh = std::make_unique<mapper::Map>(kCacheCapacity);
  result = fresh->construct(parser.grossAppBytesCount(), parser.grossIncludeBytesCount(),
                            parser.grossExcludeBytesCount(), fsa::Construction::kFromText);
  if (result != error::TPA_ERROR_NONE) return result;
  if (!automataAllocated(*fresh)) return outOfMemory();

  result = putAndFinish(parser.getRules(), *fresh, worthTwoThreads(parser));
  if (result != error::TPA_ERROR_NONE) return result;
  fresh->freeze();
  map = std::move(fresh);
  parser.clear();
  mapper::releaseFreedMemory();
  return error::TPA_ERROR_NONE;
}

}  // namespace

Builder::Builder() = default;

Builder::~Builder() = default;

Builder& Builder::operator=(Builder& other) {
  if (&other != this) map = std::move(other.map);
  return *this;
}

int Builder::build(const std::string& source, bool fromFile) {
  try {
    return buildMap(source, fromFile, map);
  } catch (const std::bad_alloc&) {
    return outOfMemory();
  }
}

int Builder::query(const std::string& app, const std::string& destination, int& value) const {
  return answer(map.get(), app, destination, value, nullptr);
}

void Builder::clearCache() {
  if (map) map->clearCache();
}

TarnPatternAnalyzer::TarnPatternAnalyzer() : shared(std::make_unique<Shared>()) {}

TarnPatternAnalyzer::~TarnPatternAnalyzer() = default;

int TarnPatternAnalyzer::build(const std::string& source, bool fromFile) {
  // Queries go on reading the current map meanwhile; only builds wait here.
  const BuildTurns::Turn turn(shared->builds);
  if (mapper::Map* current = shared->published.current()) current->clearCache();
  // A path is never rewritten; only a JSON text may be degenerate. Any
  // other text is read where it is: a copy would be held through the whole
  // build, its peak included.
  std::string rewritten;
  try {
    if (!fromFile && rewrittenByValidate(source)) {
      rewritten = source;
      validate(rewritten);
    }
  } catch (const std::bad_alloc&) {
    return outOfMemory();
  }
  int result;
  {
    Builder fresh;
    result = fresh.build(rewritten.empty() ? source : rewritten, fromFile);
    if (result == error::TPA_ERROR_NONE) {
      fresh.map->shareBetweenThreads();
      // The previous map comes back once no query reads it, freed with fresh.
      fresh.map = shared->published.publish(std::move(fresh.map));
    }
  }
  mapper::releaseFreedMemory();  // the previous rules or the failed build
  return result;
}

int TarnPatternAnalyzer::validate(std::string& text) {
  if (!rewrittenByValidate(text)) return error::TPA_ERROR_NONE;
  std::string copy = text;
  if (copy.empty()) {
    copy = "[]";
  } else if (copy == "[]") {
    copy = "[{}]";
  }
  if (copy != text) text = copy;
  return error::TPA_ERROR_NONE;
}

int TarnPatternAnalyzer::query(const std::string& app, const std::string& destination, int& value) {
  const Publication::Reading reading(shared->published);
  return answer(reading.map(), app, destination, value, nullptr);
}

void Inspect::setTwoThreadMinimum(long long symbols) {
  twoThreadMinimum.store(symbols, std::memory_order_relaxed);
}

}  // namespace tpa::api
