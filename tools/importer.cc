#include "tools/importer.h"

#include <set>
#include <unordered_set>
#include <utility>

#include "mapper/trace_text.h"
#include "parser/rule.h"
#include "tools/build_guard.h"
#include "tools/doc_scan.h"
#include "tools/json_escape.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

// Matches no destination: names under .invalid never resolve.
constexpr char kNothing[] = "nothing.tpa-import.invalid";
// Asks for every application when the rule names none.
constexpr char kAnyApp[] = "tpa.import.any-application";

void appendList(std::string& out, const char* key, const std::vector<std::string>& list) {
  out += ",\n  \"" + std::string(key) + "\": ";
  appendJsonStringArray(out, list, "\n    ");
}

// Adds `count` names under ".invalid", which no destination ever has, to
// each list that holds names.
void pad(ImportOutcome& outcome, std::size_t count) {
  for (std::vector<std::string>* list : {&outcome.include, &outcome.exclude}) {
    if (list->empty()) continue;
    for (std::size_t i = 0; i < count; ++i) {
      list->push_back("padding-" + std::to_string(outcome.padding++) +
                      "-0123456789abcdefghijklmnopqrstuvwxyz.tpa-import.invalid");
    }
  }
}

// The written wildcards ("*.M" -> M) with, for each, the last characters of
// the labels that names of the lists have right above M: a name under M that
// ends its label in such a character shares a longer tail with that name,
// and the wildcard search may follow it.
std::vector<std::pair<std::string, std::set<char>>> wildcardProbes(
    const ListMeaning& meaning, const std::vector<MeaningEntry>& entries) {
  std::vector<std::pair<std::string, std::set<char>>> out;
  std::unordered_map<std::string_view, std::size_t> at;
  for (const MeaningEntry& e : entries) {
    if (e.wildcard) out.push_back({*e.name, {}});
  }
  for (std::size_t i = 0; i < out.size(); ++i) at.emplace(out[i].first, i);
  meaning.forEachName([&](const std::string& name, ListPlace) {
    anyParent(name, [&](std::string_view parent, std::size_t dot) {
      const auto it = at.find(parent);
      if (it != at.end() && dot > 0) out[it->second].second.insert(name[dot - 1]);
      return false;
    });
  });
  return out;
}

// The written wildcards: "*.NAME" -> NAME, and whether the exclude list
// holds it.
using WildcardLists = std::unordered_map<std::string_view, bool>;

// Whether the nearest written wildcard at or above `name` is in the exclude
// list (`toExclude`); false when there is none.
bool nearestWildcard(std::string_view name, const WildcardLists& wildcards, bool& toExclude) {
  const auto found = [&](std::string_view at, std::size_t = 0) {
    const auto it = wildcards.find(at);
    if (it != wildcards.end()) toExclude = it->second;
    return it != wildcards.end();
  };
  return found(name) || anyParent(name, found);
}

// Appends the entries that catch the names whose longest tail is `tail`.
// "*TAIL" would also catch TAIL itself, and in the include list it takes
// TAIL from a whole entry of the exclude list (the longer stored key wins):
// then one entry per character that can stand before it, and so on.
void appendTailEntries(const std::string& tail, bool toExclude,
                       const std::unordered_set<std::string_view>& excluded,
                       std::vector<std::string>& out) {
  if (toExclude || excluded.count(tail) == 0) return out.push_back("*" + tail);
  for (const char c : std::string_view("abcdefghijklmnopqrstuvwxyz0123456789-_")) {
    appendTailEntries(std::string(1, c) + tail, toExclude, excluded, out);
  }
}

// Whether a wildcard of the list (`toExclude`) stands strictly above `name`.
bool wildcardAbove(std::string_view name, const WildcardLists& wildcards, bool toExclude) {
  return anyParent(name, [&](std::string_view parent, std::size_t) {
    const auto it = wildcards.find(parent);
    return it != wildcards.end() && it->second == toExclude;
  });
}

// The analyzer's wildcard search takes the longest tail of the queried name
// found anywhere in the list and reads it again behind a '*'. Under "*.M",
// a name of the same list written because an exception lies between
// ("c.b.M") holds longer tails than ".M" ("b.M", "c.b.M"), and names ending
// in one of them ("xb.M") would follow it and miss "*.M". A "*TAIL" entry in
// that list catches exactly the names whose longest tail it is, so it is
// written for every such tail whose names the nearest wildcard above
// decides for this list.
void addTails(std::vector<std::string>& list, bool toExclude, const WildcardLists& wildcards,
              const std::unordered_set<std::string_view>& excluded) {
  std::set<std::string> added;
  std::vector<std::string> entries;
  const std::size_t written = list.size();
  for (std::size_t e = 0; e < written; ++e) {
    // A copy: the list grows below.
    const std::string name = list[e].substr(list[e][0] == '*' ? 2 : 0);
    if (!wildcardAbove(name, wildcards, toExclude)) continue;  // no tail to follow instead
    for (std::size_t i = 0; i < name.size(); ++i) {
      const std::string_view tail = std::string_view(name).substr(i);
      const std::size_t dot = tail.find('.');
      if (dot == std::string_view::npos) break;
      bool nearest = false;
      if (tail[0] == '.' || !nearestWildcard(tail.substr(dot + 1), wildcards, nearest) ||
          nearest != toExclude) {
        continue;
      }
      entries.clear();
      appendTailEntries(std::string(tail), toExclude, excluded, entries);
      for (std::string& entry : entries) {
        if (added.insert(entry).second) list.push_back(std::move(entry));
      }
    }
  }
}

const char* decisionWord(bool include) {
  return mapper::decisionName(include ? mapper::TPA_DECISION_INCLUDE
                                      : mapper::TPA_DECISION_EXCLUDE);
}

// "SUBJECT gets D; the list means D'" for names the list means to be listed
// (`meant`) or not, which the document decides the other way.
std::string misdecided(const std::string& subject, bool plural, bool meant, bool excludeNames) {
  return subject + (plural ? " get " : " gets ") + decisionWord(meant == excludeNames) +
         "; the list means " + decisionWord(meant != excludeNames);
}

}  // namespace

void Importer::readLine(std::string_view line, ListPlace place, std::vector<LineNote>& notes) {
  lineRules_.clear();
  readListLine(options_.format, line, lineRules_, notes);
  for (const ListRule& rule : lineRules_) {
    ++rulesRead_;
    if (!meaning_.add(rule, place)) ++duplicates_;
  }
}

// Listed names go to one list, the names an exception takes back to the
// other. With --exclude the other list is the include list: while it is
// empty the reader's default "*" includes every other name; once it holds
// names, a second rule for every application does, which only works when
// the imported rule has applications of its own.
void Importer::splitEntries(ImportOutcome& outcome,
                            const std::vector<MeaningEntry>& entries) const {
  for (const MeaningEntry& e : entries) {
    const bool toExclude = e.listed == options_.excludeNames;
    if (!toExclude && options_.excludeNames && options_.apps.empty()) {
      dropException(outcome, e);
      continue;
    }
    (toExclude ? outcome.exclude : outcome.include).push_back(e.text());
  }
  WildcardLists wildcards;
  for (const MeaningEntry& e : entries) {
    if (e.wildcard) wildcards.emplace(*e.name, e.listed == options_.excludeNames);
  }
  std::unordered_set<std::string_view> excluded;  // whole names of the exclude list
  for (const std::string& e : outcome.exclude) excluded.insert(e);
  addTails(outcome.include, false, wildcards, excluded);
  addTails(outcome.exclude, true, wildcards, {});
  if (!options_.excludeNames && outcome.include.empty()) outcome.include.push_back(kNothing);
  outcome.everyOtherName = options_.excludeNames && !outcome.include.empty();
}

// Without applications of its own the rule is the any-application rule, and
// no second rule can include what it leaves undecided.
void Importer::dropException(ImportOutcome& outcome, const MeaningEntry& e) const {
  const bool below = e.wildcard;
  const std::string& name = *e.name;
  ++outcome.exceptionsDropped;
  outcome.warnings.push_back(
      {e.place,
       {"exception-needs-apps",
        misdecided(below ? "the names under " + quoted(name) : quoted(name), below, false, true) +
            ": an --exclude import writes exceptions only for the applications of --apps"},
       name,
       below});
}

std::string Importer::document(const ImportOutcome& outcome) const {
  std::string out = "[{\"id\": \"" + options_.id + "\"";
  if (!options_.apps.empty()) {
    out += ",\n  \"match_apps\": ";
    appendJsonStringArray(out, options_.apps);
  }
  if (!outcome.include.empty()) appendList(out, parser::kIncludeKey, outcome.include);
  if (!outcome.exclude.empty()) appendList(out, parser::kExcludeKey, outcome.exclude);
  out += "}";
  if (outcome.everyOtherName) out += ",\n {\"id\": \"" + options_.id + "\"}";
  return out + "]";
}

ImportOutcome Importer::finish() {
  ImportOutcome outcome;
  const std::vector<MeaningEntry> entries = meaning_.entries();
  splitEntries(outcome, entries);
  // The analyzer sizes each automaton from the document's symbol counts,
  // which leave out one character of every key; many short keys that share
  // their ends can need more states than that. Names under ".invalid" add
  // room without changing any decision.
  api::TarnPatternAnalyzer analyzer;
  for (std::size_t count = 1; count <= 4096; count *= 2) {
    outcome.document = document(outcome);
    const BuildOutcome built = buildGuarded(analyzer, outcome.document);
    if (!built.threw && built.code == error::TPA_ERROR_NONE) {
      outcome.built = true;
      break;
    }
    if (built.threw || built.code != error::TPA_ERROR_ARRAY_OUT_OF_INDEX) break;
    pad(outcome, count);
  }
  if (outcome.built) askBack(outcome, analyzer, entries);
  return outcome;
}

// Asks the built document about every name of the lists, then about probes
// under each wildcard.
void Importer::askBack(ImportOutcome& outcome, api::TarnPatternAnalyzer& analyzer,
                       const std::vector<MeaningEntry>& entries) const {
  const std::string app = options_.apps.empty() ? kAnyApp : options_.apps[0];
  const int listedDecision = options_.excludeNames ? 0 : 1;
  const std::function<bool(const std::string&)> gives = [&](const std::string& name) {
    int value = 0;
    return analyzer.query(app, name, value) == listedDecision;
  };
  // What splitEntries left out and said so: the names, and the names under.
  std::set<std::string> reported, reportedBelow;  // copies: warnings grows below
  for (const ImportWarning& w : outcome.warnings) (w.below ? reportedBelow : reported).insert(w.name);
  const auto alreadySaid = [&](const std::string& name) {
    return reported.count(name) != 0 || anyParent(name, [&](std::string_view parent, std::size_t) {
             return reportedBelow.count(std::string(parent)) != 0;
           });
  };
  meaning_.forEachName([&](const std::string& name, ListPlace place) {
    const bool meant = meaning_.listed(name);
    if (gives(name) == meant || alreadySaid(name)) return;
    ++outcome.namesLost;
    outcome.warnings.push_back(
        {place,
         {"meaning-lost", misdecided(quoted(name), false, meant, options_.excludeNames)},
         name});
  });
  std::unordered_map<std::string_view, ListPlace> placeOf;  // wildcard entries by name
  for (const MeaningEntry& e : entries) {
    if (e.wildcard) placeOf.emplace(*e.name, e.place);
  }
  for (const auto& [name, ends] : wildcardProbes(meaning_, entries)) {
    if (alreadySaid(name)) continue;
    const std::size_t before = outcome.warnings.size();
    askUnder(outcome, name, ends, placeOf.at(name), gives);
    if (outcome.warnings.size() != before) ++outcome.wildcardsHidden;
  }
}

// One probe under the wildcard "*.NAME" for each label ending in `ends`, and
// "tpa-probe.NAME" (ending in 'e') for the names no list name is near.
void Importer::askUnder(ImportOutcome& outcome, const std::string& name, std::set<char> ends,
                        ListPlace place,
                        const std::function<bool(const std::string&)>& gives) const {
  ends.insert('e');
  for (char c : ends) {
    const std::string probe =
        c == 'e' ? "tpa-probe." + name : "tpa-probe-" + std::string(1, c) + "." + name;
    const bool meant = meaning_.listed(probe);
    if (gives(probe) == meant) continue;
    outcome.warnings.push_back(
        {place,
         {"wildcard-hidden",
          misdecided("names under " + quoted(name) + " whose label before it ends in '" +
                         std::string(1, c) + "' (such as " + quoted(probe) + ")",
                     true, meant, options_.excludeNames) +
              ": the analyzer's wildcard search follows the longer tail of a name of the same "
              "list under it"},
         name,
         true});
  }
}

}  // namespace tpa::tools
