// Rule is one entry of a rules document after reading: the apps it applies
// to, its sanitised include and exclude destinations, its id, and the symbol
// totals the map sizes its automata with before anything is inserted.
// A plain value that owns its lists; no locking. sanitize() rewrites address
// and network texts into the canonical forms that keys are built from.
#ifndef TPA_PARSER_RULE_H_
#define TPA_PARSER_RULE_H_

#include <climits>
#include <string>
#include <vector>

#include "json/json_object.h"

namespace tpa::parser {

// The keys a rule reads (any other key of an object is ignored), and the id
// of a rule without a usable "id".
inline constexpr char kAppsKey[] = "match_apps";
inline constexpr char kIncludeKey[] = "include";
inline constexpr char kExcludeKey[] = "exclude";
inline constexpr char kIdKey[] = "id";
inline constexpr int kDefaultId = INT_MAX;

// The lists of a rule that leaves them out: every destination is included,
// and only the empty one excluded.
inline constexpr char kAnyDestination[] = "*";
inline constexpr char kNoDestination[] = "";

class Rule {
 public:
  Rule(const json_config::json_object& object, int numberDigits);
  Rule(const Rule& other) = default;
  Rule(Rule&& other) noexcept = default;
  Rule& operator=(const Rule& other) = default;
  Rule& operator=(Rule&& other) noexcept = default;
  ~Rule() = default;

  // Empties the three lists, keeping their storage; the numbers stay.
  void clear();

  // Symbols the lists occupy in their automata: each string's key length,
  // plus numberDigits for destinations, plus the two sentinels if asked;
  // INT_MAX when the sum does not fit an int.
  [[nodiscard]] int appSymbolCount(bool withSentinels) const;
  [[nodiscard]] int includeListSymbolCount(bool withSentinels) const;
  [[nodiscard]] int excludeListSymbolCount(bool withSentinels) const;
  // The destination count over any list with `extra` symbols per string; reads
  // nothing of this rule.
  [[nodiscard]] int domainSymbolCount(bool withSentinels, int extra,
                                      const std::vector<std::string>& list) const;

  // After construction none of the lists is empty: an app-less rule holds
  // "#LAMBDA-APP", a rule without includes "*", without excludes "".
  std::vector<std::string> apps;         // as written
  std::vector<std::string> includeList;  // sanitised
  std::vector<std::string> excludeList;  // sanitised
  // 2147483647 when the object has no usable "id".
  int id;
  // The totals of the lists as constructed, with sentinels:
  // appSymbolCount(true), includeListSymbolCount(true), excludeListSymbolCount(true).
  // The include/exclude flag that ends each destination key is not counted.
  int appSymbolTotal;
  int includeSymbolTotal;
  int excludeSymbolTotal;
  int numberDigits;  // decimal digits of the rule's 1-based position
};

// Rewrites each address or network in place into its canonical text: padded
// IPv4 (networks too), full IPv6, the zero form of an unspecified address, or
// the network-ID bits of an IPv6 network. Other strings stay as written.
// May throw what address recognition throws for malformed networks.
void sanitize(std::vector<std::string>& list);

// The number under which the builder stores the rule at 1-based `position`:
// mapper::TPA_RULE_NUMBER_ZERO for a rule of every application (no apps, or
// exactly "#LAMBDA-APP"), else its position.
[[nodiscard]] int ruleNumber(const std::vector<std::string>& apps, int position);

}  // namespace tpa::parser

#endif  // TPA_PARSER_RULE_H_
