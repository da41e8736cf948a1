#include "tpa/api/analyzer.h"

#include <android/log.h>

#include <new>
#include <string>
#include <utility>
#include <vector>

#include "api/facade.h"
#include "base/log.h"
#include "mapper/decision.h"
#include "mapper/fill.h"
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

// The parser's rules as a map is filled from them.
class ParsedRules : public mapper::RuleSource {
 public:
  explicit ParsedRules(std::vector<parser::Rule>& rules) : rules_(rules) {}

  std::size_t size() const override { return rules_.size(); }
  Rule at(std::size_t i) const override {
    const parser::Rule& r = rules_[i];
    return Rule{parser::ruleNumber(r.apps, static_cast<int>(i) + 1), r.apps, r.includeList,
                r.excludeList, r.id};
  }
  void release(std::size_t i) override { rules_[i].clear(); }
  void releaseAll() override { std::vector<parser::Rule>().swap(rules_); }

 private:
  std::vector<parser::Rule>& rules_;
};

// The two degenerate documents, which validate rewrites.
bool rewrittenByValidate(const std::string& text) { return text.empty() || text == "[]"; }

}  // namespace

int fillMap(parser::JsonParser& parser, const mapper::MachineSizes& sizes,
            std::unique_ptr<mapper::Map>& map) {
  auto fresh = std::make_unique<mapper::Map>(kCacheCapacity);
  ParsedRules rules(parser.getRules());
  const int result = mapper::fill(*fresh, sizes, rules);
  if (result == error::TPA_ERROR_NONE) map = std::move(fresh);
  return result;
}

namespace {

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
  result =
      fillMap(parser,
              mapper::MachineSizes{parser.grossAppBytesCount(), parser.grossIncludeBytesCount(),
                                   parser.grossExcludeBytesCount()},
              map);
  if (result != error::TPA_ERROR_NONE) return result;
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

}  // namespace tpa::api
