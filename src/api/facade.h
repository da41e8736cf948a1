// What the facade's queries and Inspect's share: the analyzer's published map
// with the builds' turns, and the answer a map gives (the facade's rules for
// a missing map included). Internal to src/api/; the thread-safety of each
// member is its own (see publication.h).
#ifndef TPA_API_FACADE_H_
#define TPA_API_FACADE_H_

#include <string>

#include "api/publication.h"
#include "mapper/decision.h"
#include "mapper/map.h"
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

}  // namespace tpa::api

#endif  // TPA_API_FACADE_H_
