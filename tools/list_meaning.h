// What a list means, name by name, and the fewest document entries that say
// the same through the analyzer's matching.
//
// A name is listed when an $important block covers it, or a block covers it
// and no exception does (exceptions beat blocks of any length; hosts and
// domain lists have blocks only). A rule covers its own name (`self`) and/or
// every name below it (`under`).
//
// The analyzer decides by the nearest entry: a whole name beats every
// wildcard, and a longer wildcard beats a shorter one whichever list holds
// them. So an entry is written only where the decision changes from the one
// the names above give: the name itself when its own decision differs, and
// "*.name" when the decision of the names under it differs. Listed names go
// to one list, the names an exception takes back to the other.
// One owner; not thread-safe.
#ifndef TPA_TOOLS_LIST_MEANING_H_
#define TPA_TOOLS_LIST_MEANING_H_

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/list_formats.h"

namespace tpa::tools {

// Where a rule came from: an index into the caller's file names and a line.
struct ListPlace {
  std::uint32_t file = 0;
  std::uint32_t line = 0;
};

// Asks `stop(parent, dot)` of each domain strictly above `name`, nearest
// first (`parent` follows the '.' at `dot`), until it says true; whether one
// did.
template <typename Stop>
bool anyParent(std::string_view name, Stop stop) {
  for (std::size_t dot = name.find('.'); dot != std::string_view::npos;
       dot = name.find('.', dot + 1)) {
    if (stop(name.substr(dot + 1), dot)) return true;
  }
  return false;
}

// One entry of the document: a name, or "*." and a name. Views the name
// its ListMeaning holds, so it lives no longer than that.
struct MeaningEntry {
  const std::string* name = nullptr;
  bool wildcard = false;  // "*." + name
  bool listed = false;    // in the list of listed names, else in the other one
  ListPlace place;        // the first rule on the name
  [[nodiscard]] std::string text() const { return wildcard ? "*." + *name : *name; }
};

class ListMeaning {
 public:
  // Adds one rule; returns false when the same rule was already on the name.
  bool add(const ListRule& rule, ListPlace place);

  // The list's decision for any name (lower case, ASCII).
  [[nodiscard]] bool listed(std::string_view name) const;

  // The entries that give every name its decision, in the order their names
  // were first read, the name before its wildcard.
  [[nodiscard]] std::vector<MeaningEntry> entries() const;

  // Every name some rule is on, in reading order, with its first rule's place.
  template <typename Visit>
  void forEachName(Visit visit) const {
    for (const Named& n : names_) visit(n.name, n.place);
  }

  [[nodiscard]] std::size_t size() const { return names_.size(); }

 private:
  struct Named {
    std::string name;
    std::uint8_t self = 0;   // RuleKind bits of the rules on the name itself
    std::uint8_t under = 0;  // RuleKind bits of the rules on the names below it
    ListPlace place;
  };

  // The RuleKind bits of the rules above `name` that reach below them.
  [[nodiscard]] std::uint8_t above(std::string_view name) const;
  [[nodiscard]] const Named* find(std::string_view name) const;

  std::deque<Named> names_;  // reading order; stable, so index_ may view the names
  std::unordered_map<std::string_view, std::size_t> index_;  // name -> position in names_
};

// The decision of a name covered by rules of these kinds.
[[nodiscard]] constexpr bool listedBy(std::uint8_t kinds) {
  return (kinds & kImportant) != 0 || ((kinds & kBlock) != 0 && (kinds & kException) == 0);
}

}  // namespace tpa::tools

#endif  // TPA_TOOLS_LIST_MEANING_H_
