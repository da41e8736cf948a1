#include "api/analyzer.h"

#include <android/log.h>

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

#include "api/constants.h"
#include "api/diagnostics.h"
#include "api/log.h"
#include "api/publication.h"
#include "mapper/decision.h"
#include "mapper/map.h"
#include "parser/json_parser.h"
#include "parser/rule.h"

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

// Puts every rule in order; stops at the first failure and returns its code.
int putOnOneThread(std::vector<parser::Rule>& rules, mapper::Map& map) {
  int ordinal = 0;
  for (parser::Rule& rule : rules) {
    ++ordinal;
    const int result = map.put(parser::ruleNumber(rule.apps, ordinal), rule.apps, rule.includeList,
                               rule.excludeList, rule.id);
    if (result != error::TPA_ERROR_NONE) return result;
    // Free each rule's strings as soon as the map holds them, so that a large
    // document is never held twice in memory.
    rule.clear();
  }
  return error::TPA_ERROR_NONE;
}

// A second thread pays for itself when both halves are large.
std::atomic<long long> twoThreadMinimum{1 << 16};

bool worthTwoThreads(const parser::JsonParser& parser) {
  const long long minimum = twoThreadMinimum.load(std::memory_order_relaxed);
  return parser.grossIncludeBytesCount() >= minimum &&
         static_cast<long long>(parser.grossAppBytesCount()) + parser.grossExcludeBytesCount() >=
             minimum;
}

// How one thread's half of a two-thread put ended: where it stopped (the
// rule's index * 3 + 0 for its applications, 1 its include list, 2 its
// exclude list: the order of a one-thread put), with what, and the messages
// it kept meanwhile.
struct HalfPut {
  std::size_t stoppedAt = SIZE_MAX;  // SIZE_MAX: every rule put
  int code = error::TPA_ERROR_NONE;
  std::exception_ptr thrown;
  std::vector<log::Message> messages;

  void stop(std::size_t at, int result) {
    stoppedAt = at;
    code = result;
  }
  void fail(std::size_t at) {
    stoppedAt = at;
    thrown = std::current_exception();
  }
};

// Each machine is touched by one thread only: the include machine by a second
// thread, the others by this one. Their messages are kept and only the half
// that stopped first in a one-thread put's order writes its own (the other
// would not have been reached), so the outcome, messages included, is that
// of putOnOneThread. Falls back to it when no thread can be started.
int putOnTwoThreads(std::vector<parser::Rule>& rules, mapper::Map& map) {
  std::vector<int> numbers(rules.size()), domainRules(rules.size()), ids(rules.size());
  for (std::size_t i = 0; i < rules.size(); ++i) {
    numbers[i] = parser::ruleNumber(rules[i].apps, static_cast<int>(i) + 1);
    domainRules[i] = mapper::Map::domainRuleOf(numbers[i], rules[i].apps);
    ids[i] = rules[i].id;
  }
  HalfPut includes, others;
  const auto putIncludes = [&] {
    log::Deferral kept;
    std::pair<std::string, int> key;
    std::string text;
    std::size_t i = 0;
    try {
      for (; i < rules.size(); ++i) {
        const int r = map.putList(true, domainRules[i], rules[i].includeList, ids[i], text, key);
        if (r != error::TPA_ERROR_NONE) {
          includes.stop(3 * i + 1, r);
          break;
        }
        rules[i].includeList.clear();
      }
    } catch (...) {
      includes.fail(3 * i + 1);
    }
    includes.messages = kept.take();
  };
  std::thread second;
  try {
    second = std::thread(putIncludes);
  } catch (const std::system_error&) {
    return putOnOneThread(rules, map);
  }
  {
    log::Deferral kept;
    std::pair<std::string, int> key;
    std::string text;
    std::size_t at = 0;
    try {
      for (std::size_t i = 0; i < rules.size(); ++i) {
        at = 3 * i;
        int r = map.putApps(numbers[i], rules[i].apps, key);
        if (r == error::TPA_ERROR_NONE) {
          at = 3 * i + 2;
          r = map.putList(false, domainRules[i], rules[i].excludeList, ids[i], text, key);
        }
        if (r != error::TPA_ERROR_NONE) {
          others.stop(at, r);
          break;
        }
        rules[i].apps.clear();
        rules[i].excludeList.clear();
      }
    } catch (...) {
      others.fail(at);
    }
    others.messages = kept.take();
  }
  second.join();
  const HalfPut& first = includes.stoppedAt < others.stoppedAt ? includes : others;
  if (first.stoppedAt == SIZE_MAX) return error::TPA_ERROR_NONE;
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
                            parser.grossExcludeBytesCount());
  if (result != error::TPA_ERROR_NONE) return result;
  if (!automataAllocated(*fresh)) return outOfMemory();

  result = worthTwoThreads(parser) ? putOnTwoThreads(parser.getRules(), *fresh)
                                   : putOnOneThread(parser.getRules(), *fresh);
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
  return Inspect::query(*this, app, destination, value, nullptr);
}

void Builder::clearCache() {
  if (map) map->clearCache();
}

struct TarnPatternAnalyzer::Shared {
  Publication published;
  BuildTurns builds;
};

TarnPatternAnalyzer::TarnPatternAnalyzer() : shared(std::make_unique<Shared>()) {}

TarnPatternAnalyzer::~TarnPatternAnalyzer() = default;

int TarnPatternAnalyzer::build(const std::string& source, bool fromFile) {
  // Queries go on reading the current map meanwhile; only builds wait here.
  const BuildTurns::Turn turn(shared->builds);
  if (mapper::Map* current = shared->published.current()) current->clearCache();
  std::string copy;
  try {
    copy = source;
    // A path is never rewritten; only a JSON text may be degenerate.
    if (!fromFile) validate(copy);
  } catch (const std::bad_alloc&) {
    return outOfMemory();
  }
  int result;
  {
    Builder fresh;
    result = fresh.build(copy, fromFile);
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
  return Inspect::query(*this, app, destination, value, nullptr);
}

namespace {

// The facade's answer from `map`: exclude, value untouched, without one.
int answer(const mapper::Map* map, const std::string& app, const std::string& destination,
           int& value, mapper::QueryTrace* trace) {
  if (map == nullptr) return mapper::TPA_DECISION_EXCLUDE;
  const mapper::Decision decision = map->get(app, destination, trace);
  value = decision.value;
  return decision.decision;
}

}  // namespace

const mapper::Map* Inspect::map(const Builder& builder) { return builder.map.get(); }

const mapper::Map* Inspect::map(const TarnPatternAnalyzer& analyzer) {
  return analyzer.shared->published.current();
}

int Inspect::query(const Builder& builder, const std::string& app, const std::string& destination,
                   int& value, mapper::QueryTrace* trace) {
  return answer(builder.map.get(), app, destination, value, trace);
}

int Inspect::query(TarnPatternAnalyzer& analyzer, const std::string& app,
                   const std::string& destination, int& value, mapper::QueryTrace* trace) {
  const Publication::Reading reading(analyzer.shared->published);
  return answer(reading.map(), app, destination, value, trace);
}

void Inspect::setTwoThreadMinimum(long long symbols) {
  twoThreadMinimum.store(symbols, std::memory_order_relaxed);
}

}  // namespace tpa::api
