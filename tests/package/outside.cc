// Builds rules and queries them through the installed facade only.
#include <cstdio>
#include <cstring>

#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"
#include "tpa/api/log_message.h"

int main() {
  tpa::api::TarnPatternAnalyzer analyzer;
  if (analyzer.build(R"([{"match_apps": ["a"], "include": ["x.test"], "id": "4"}])", false) !=
      tpa::error::TPA_ERROR_NONE) {
    return 1;
  }
  const int failed = analyzer.build("/no/such/rules.json", true);
  if (std::strcmp(tpa::error::name(failed), "TPA_ERROR_JSON_FILE_NOT_FOUND") != 0) return 1;
  int value = -1;
  const int decision = analyzer.query("a", "x.test", value);
  LOG_message(0, nullptr, "decision %d value %d\n", decision, value);
  return decision == tpa::mapper::TPA_DECISION_INCLUDE && value == 4 ? 0 : 1;
}
