#include "api/diagnostics.h"

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

void Inspect::setTwoThreadMinimum(long long symbols) { mapper::setTwoThreadMinimum(symbols); }

}  // namespace tpa::api
