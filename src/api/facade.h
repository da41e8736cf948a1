// What the facade's queries and Inspect's share: the analyzer's published map
// with the builds' turns, the answer a map gives (the facade's rules for a
// missing map included), and how a map is filled from parsed rules. Internal
// to src/api/; the thread-safety of each member is its own (see
// publication.h).
#ifndef TPA_API_FACADE_H_
#define TPA_API_FACADE_H_

#include <memory>
#include <string>

#include "api/publication.h"
#include "mapper/decision.h"
#include "mapper/fill.h"
#include "mapper/map.h"
#include "parser/json_parser.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::api {

struct TarnPatternAnalyzer::Shared {
  Publication published;
  BuildTurns builds;
};

// The facade's answer from `map`: exclude, value untouched, without one.
inline int answer(const mapper::Map* map, const std::string& app, const std::string& destination,
                  int& value, mapper::QueryTrace* trace) {
  if (map == nullptr) return mapper::TPA_DECISION_EXCLUDE;
  const mapper::Decision decision = map->get(app, destination, trace);
  value = decision.value;
  return decision.decision;
}

// Fills a fresh map from the rules `parser` read, `sizes` their symbol
// totals, and hands it to `map` when the fill succeeds: 0, or the fill's
// code. Throws std::bad_alloc.
int fillMap(parser::JsonParser& parser, const mapper::MachineSizes& sizes,
            std::unique_ptr<mapper::Map>& map);

}  // namespace tpa::api

#endif  // TPA_API_FACADE_H_
