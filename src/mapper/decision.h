// Decision: the answer to a query, include or exclude, and the id of the
// deciding rule. A plain value; copies share nothing.
#ifndef TPA_MAPPER_DECISION_H_
#define TPA_MAPPER_DECISION_H_

#include "tpa/api/constants.h"

namespace tpa::mapper {

class Decision {
 public:
  Decision() : Decision(MAP_DEFAULT_DOMAIN_VALUE, TPA_DECISION_EXCLUDE) {}  // no match
  Decision(int value, int decision) : value(value), decision(decision) {}

  bool isInIncludeList() const { return decision == TPA_DECISION_INCLUDE; }
  bool isInExcludeList() const { return decision != TPA_DECISION_INCLUDE; }  // anything else

  int value;     // id of the deciding rule, or MAP_DEFAULT_DOMAIN_VALUE
  int decision;  // TPA_DECISION_INCLUDE or TPA_DECISION_EXCLUDE
};

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_DECISION_H_
