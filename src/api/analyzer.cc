#include "api/analyzer.h"

#include <android/log.h>

#include <initializer_list>
#include <mutex>
#include <new>
#include <utility>

#include "api/constants.h"
#include "api/diagnostics.h"
#include "api/log.h"
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

  int ordinal = 0;
  for (parser::Rule& rule : parser.getRules()) {
    ++ordinal;
    result = fresh->put(parser::ruleNumber(rule.apps, ordinal), rule.apps, rule.includeList,
                        rule.excludeList, rule.id);
    if (result != error::TPA_ERROR_NONE) return result;
    // Free each rule's strings as soon as the map holds them, so that a large
    // document is never held twice in memory.
    rule.clear();
  }
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

TarnPatternAnalyzer::TarnPatternAnalyzer() = default;

TarnPatternAnalyzer::~TarnPatternAnalyzer() = default;

int TarnPatternAnalyzer::build(const std::string& source, bool fromFile) {
  std::unique_lock<std::shared_mutex> lock(mutex);
  builder.clearCache();
  std::string copy;
  try {
    copy = source;
    // A path is never rewritten; only a JSON text may be degenerate.
    if (!fromFile) validate(copy);
  } catch (const std::bad_alloc&) {
    return outOfMemory();
  }
  Builder fresh;
  int result = fresh.build(copy, fromFile);
  if (result == error::TPA_ERROR_NONE) builder = fresh;
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
  std::unique_lock<std::shared_mutex> lock(mutex);
  return builder.query(app, destination, value);
}

const mapper::Map* Inspect::map(const Builder& builder) { return builder.map.get(); }

const mapper::Map* Inspect::map(const TarnPatternAnalyzer& analyzer) {
  return map(analyzer.builder);
}

int Inspect::query(const Builder& builder, const std::string& app, const std::string& destination,
                   int& value, mapper::QueryTrace* trace) {
  if (!builder.map) return mapper::TPA_DECISION_EXCLUDE;
  mapper::Decision decision = builder.map->get(app, destination, trace);
  value = decision.value;
  return decision.decision;
}

int Inspect::query(TarnPatternAnalyzer& analyzer, const std::string& app,
                   const std::string& destination, int& value, mapper::QueryTrace* trace) {
  std::unique_lock<std::shared_mutex> lock(analyzer.mutex);
  return query(analyzer.builder, app, destination, value, trace);
}

}  // namespace tpa::api
