#include "api/diagnostics.h"

#include <android/log.h>

#include <new>

#include "api/facade.h"
#include "mapper/fill.h"

namespace tpa::api {

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

namespace {

// Quiets the process's log for as long as it lives, whatever ends its scope.
class QuietLog {
 public:
  QuietLog() : previous_(__android_log_set_minimum_priority(ANDROID_LOG_SILENT)) {}
  ~QuietLog() { __android_log_set_minimum_priority(previous_); }
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

 private:
  int previous_;
};

}  // namespace

std::unique_ptr<mapper::Map> Inspect::mapOfRulesRead(const std::string& text) {
  const QuietLog quiet;
  parser::JsonParser parser;
  (void)parser.parse(text, false);
  mapper::MachineSizes sizes{0, 0, 0};
  for (const parser::Rule& rule : parser.getRules()) {
    sizes.apps += rule.appSymbolTotal;
    sizes.include += rule.includeSymbolTotal;
    sizes.exclude += rule.excludeSymbolTotal;
  }
  std::unique_ptr<mapper::Map> map;
  try {
    (void)fillMap(parser, sizes, map);
  } catch (const std::bad_alloc&) {
    map.reset();
  }
  return map;
}

void Inspect::setTwoThreadMinimum(long long symbols) { mapper::setTwoThreadMinimum(symbols); }

}  // namespace tpa::api
