// The classes of destinations that a complete `tpa diff` asks about. A query
// reads the stored keys only as text: a name through whole-key equality and
// through the longest ending of its framed key "#NAME$" RULE FLAG found in a
// machine's text (then re-read behind '*'); an address through the same two
// searches of its fixed-width text and through the longest run of its bits
// found in a machine. So two destinations that meet the same stored text get
// the same decision in either document, and the classes can be enumerated
// from the keys of both documents:
//  - names: every ending of a stored "#" NAME (the text before a '$' of a
//    key) is the class of the names whose longest such ending it is; an
//    ending that starts with '#' is the one name NAME;
//  - addresses (IPv4 and IPv6 apart): the networks cut by the stored bit
//    strings, each cut again by how its addresses' fixed-width text ends
//    where a wildcard could match it (the text after a '*' of a stored key
//    that ends the address text, and the character before that); a stored
//    address is a name class.
// A class set is cut by the keys read under some rule numbers (`own`) and
// lies over a base set cut by the keys of rule 0, the fallback of every
// query; `owner` tells which own class holds a base class. Plain values built
// from parsed rules; one thread each.
#ifndef TPA_TOOLS_DIFF_CLASSES_H_
#define TPA_TOOLS_DIFF_CLASSES_H_

#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "parser/rule.h"

namespace tpa::tools {

// What one document stores, by the rule number whose queries read it.
struct DocumentKeys {
  // "#" NAME up to each '$' of a stored key, under every rule number whose
  // framed queries can end in that '$' and the digits behind it (a key of
  // rule 11 ends in "$111", which holds rule 1's "$11").
  std::unordered_map<int, std::vector<std::string>> stems;
  // The stored bit strings (networks), by their rule number.
  std::unordered_map<int, std::vector<std::string>> networks;
  // What follows each '*' of a stem, in any rule: a wildcard search (re-read
  // behind '*') can only end on a stored key through one of these.
  std::unordered_set<std::string> wildcards;
};
[[nodiscard]] DocumentKeys storedKeys(const std::vector<parser::Rule>& rules);

// One class and how to name and ask it.
struct DestinationClass {
  std::string key;      // names: the ending; networks: the network's bits
  std::string kind;     // "name" (one name or address), "ending" or "network"
  std::string pattern;  // NAME (ADDRESS/32 or /128 for an address), *ENDING or ADDRESS/BITS
  std::string example;  // a destination of the class; empty when it has none
  std::string ending;   // networks: how its addresses' text ends (empty: not cut)
  bool joint = true;    // its own class; false: base classes cut it further
  bool hasBase = false;  // base classes lie inside it
  // An earlier class of the same set that provably answers alike in both
  // documents (-1: none); its answers, and its report, stand for this one.
  int sameAs = -1;
};

// The classes of one kind of destination (names, IPv4 or IPv6 addresses).
class ClassSet {
 public:
  virtual ~ClassSet() = default;
  [[nodiscard]] const std::vector<DestinationClass>& classes() const { return classes_; }
  // Whether `key` cuts the classes: for names, an ending of this set or of
  // its base; for networks, a prefix of one of this set's networks.
  [[nodiscard]] virtual bool taken(const std::string& key) const = 0;
  // The index of the class of this set that holds the base class `base`
  // and decides it through the base keys; -1 when this set's own classes
  // cut it (they are asked themselves).
  [[nodiscard]] virtual int owner(const DestinationClass& base) const = 0;

 protected:
  std::vector<DestinationClass> classes_;  // in no particular order
};

// The stems of both documents read under one rule number each (rule 0's
// stems and networks belong to the base set, not to `own`).
struct KeySelection {
  std::vector<const std::vector<std::string>*> stems;
  std::vector<const std::vector<std::string>*> networks;
};

// Name classes over `base` (null: this is the base set). A wildcard search
// can only end on a stored key through a text that follows a '*' of a stem
// (`wildcards`, of both documents), so endings that meet the same such texts
// the same way answer alike: the first of them stands for the others.
[[nodiscard]] std::unique_ptr<ClassSet> nameClasses(
    const KeySelection& own, const ClassSet* base,
    const std::unordered_set<std::string>& wildcards);

// Network classes of the addresses `width` bits wide (32 or 128); `names`
// (this selection's name classes) keeps examples off stored addresses;
// `wildcards`: DocumentKeys::wildcards of both documents.
[[nodiscard]] std::unique_ptr<ClassSet> networkClasses(
    const KeySelection& own, int width, const ClassSet* base, const ClassSet& names,
    const std::unordered_set<std::string>& wildcards);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_DIFF_CLASSES_H_
