// `tpa diff`: builds two rules documents and lists every class of
// destinations (tools/diff_classes.h) whose decision differs between them for
// some application, or every differing question of a QUERIES file, with the
// reason each side gives.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "api/diagnostics.h"
#include "cidr/address_bits.h"
#include "mapper/trace_text.h"
#include "mapper/transform.h"
#include "parser/rule.h"
#include "tools/build_guard.h"
#include "tools/commands.h"
#include "tools/decision_reason.h"
#include "tools/diff_classes.h"
#include "tools/doc_scan.h"
#include "tools/line_io.h"
#include "tools/lint.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

// Runs `first` and `second` at once when a thread can be had, else one after
// the other: the two documents are independent until they are compared.
template <typename First, typename Second>
void inParallel(First&& first, Second&& second) {
  std::thread thread;
  try {
    thread = std::thread(first);
  } catch (const std::system_error&) {
    first();
  }
  second();
  if (thread.joinable()) thread.join();
}

struct Question {
  std::string app;
  std::string destination;
};

// QUERIES in the `tpa query` stream format. Returns kExitOk or the exit code.
int readQuestions(const std::string& path, std::vector<Question>& out) {
  std::string text, line;
  if (!loadRules(path, text)) return kExitNoInput;
  std::istringstream lines(text);
  for (std::size_t number = 1; std::getline(lines, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos) {
      std::fprintf(stderr, "tpa: %s line %zu: no TAB between APP and DEST\n",
                   displayName(path).c_str(), number);
      return kExitBadQuery;
    }
    out.push_back({line.substr(0, tab), line.substr(tab + 1)});
  }
  return kExitOk;
}

struct Answer {
  int decision = 0;
  int value = -1;
  bool decided = true;  // decided before any fallback to rule 0 (traced answers only)
  bool operator!=(const Answer& o) const { return decision != o.decision || value != o.value; }
};

// One question's answers in both documents.
struct Pair {
  Answer old, neu;
  [[nodiscard]] bool changed() const { return old != neu; }
};

enum ChangeKind { kIncludeToExclude, kExcludeToInclude, kIdChanged, kChangeKinds };
constexpr const char* kKindName[kChangeKinds] = {"include_to_exclude", "exclude_to_include",
                                                 "id_changed"};

ChangeKind kindOf(const Answer& before, const Answer& after) {
  if (before.decision == after.decision) return kIdChanged;
  return after.decision == mapper::TPA_DECISION_INCLUDE ? kExcludeToInclude : kIncludeToExclude;
}

std::string answerText(const Answer& a) {
  return std::string(mapper::decisionName(a.decision)) + " " + std::to_string(a.value);
}

// One side of the comparison: a built document, and (for annotations) where
// its rules and values stand.
struct Side {
  std::string name;
  BuiltDocument document;
  BuildFailure failure;
  std::unique_ptr<DocumentScan> scan;
  std::unique_ptr<LineIndex> lines;

  Answer ask(const std::string& app, const std::string& destination, mapper::QueryTrace* trace) {
    Answer a;
    a.decision = api::Inspect::query(document.analyzer, app, destination, a.value, trace);
    if (trace != nullptr) a.decided = trace->steps.size() != 2 && trace->rule != 0;
    return a;
  }
  [[nodiscard]] const std::vector<parser::Rule>& rules() const {
    return document.parser.getRules();
  }
};

// Where NEW says what changed: its deciding entry, else the rule (or the
// start) where OLD's deciding entry no longer stands, with a note saying so.
struct Place {
  std::size_t line = 1, column = 1;
  std::string note;
};

class Annotator {
 public:
  Annotator(const Side& before, const Side& after) : old_(before), new_(after) {}

  Place place(const mapper::QueryTrace& oldTrace, const mapper::QueryTrace& newTrace) const {
    const std::vector<int> now = decidingPositions(new_.rules(), newTrace);
    if (!now.empty()) return entryPlace(now[0], decidingStep(newTrace));
    Place at;
    const std::vector<int> was = decidingPositions(old_.rules(), oldTrace);
    if (was.empty()) return at;
    at.note = " (no entry of NEW decides; in OLD the rule at position " +
              std::to_string(was[0]) + " did)";
    if (static_cast<std::size_t>(was[0]) <= new_.scan->rules.size()) at = rulePlace(was[0], at.note);
    return at;
  }

 private:
  Place rulePlace(int position, const std::string& note) const {
    const ScannedObject& object = ruleObject(position);
    const auto [line, column] = new_.lines->at(object.open);
    return {line, column, note};
  }

  const ScannedObject& ruleObject(int position) const {
    return new_.scan->objects[new_.scan->rules[static_cast<std::size_t>(position) - 1]];
  }

  Place entryPlace(int position, const DecidingStep& step) const {
    if (static_cast<std::size_t>(position) > new_.scan->rules.size()) return {};
    const std::string entry =
        step.list != nullptr ? mapper::framedName(decidingKey(*step.list)) : "";
    const char* key = step.include ? parser::kIncludeKey : parser::kExcludeKey;
    for (const ScannedString* value : ruleObject(position).valuesOf(key)) {
      const StoredDestination stored = storeDestination(value->text);
      if (!entry.empty() && !stored.threw && stored.stored == entry) {
        const auto [line, column] = new_.lines->at(value->offset);
        return {line, column, ""};
      }
    }
    return rulePlace(position, "");  // a default entry, or one the trace does not name
  }

  const Side& old_;
  const Side& new_;
};

// A change to report: who, which destinations, and both answers.
struct Change {
  std::string app;      // the application, or "*" for every other one
  bool anyApp = false;  // app stands for every application no document names
  std::string destination;  // the question's, or the class's example
  std::string kind;         // the class's kind (empty for a question of QUERIES)
  std::string pattern;      // the class
  std::string ending;       // a network's addresses whose text ends so (empty: any)
  std::vector<std::string> also;  // the other applications with the same change
};

// Writes the changes in the chosen format and counts them.
class Reporter {
 public:
  Reporter(Side& before, Side& after, OutputFormat format, OutputSink& out)
      : old_(before), new_(after), format_(format), out_(out), annotator_(before, after) {}

  // Asks `askedAs` (the application the question is asked for) again with
  // traces, for the reasons; reports when the answers still differ.
  void report(const Change& change, const std::string& askedAs) {
    mapper::QueryTrace oldTrace, newTrace;
    const Answer a = old_.ask(askedAs, change.destination, &oldTrace);
    const Answer b = new_.ask(askedAs, change.destination, &newTrace);
    if (!(a != b)) return;
    const ChangeKind kind = kindOf(a, b);
    ++counts_[kind];
    ++changed_;
    const std::string oldReason = decisionReason(oldTrace);
    const std::string newReason = decisionReason(newTrace);
    if (format_ == OutputFormat::kJson) {
      out_.line(jsonChange(change, kind, a, b, oldReason, newReason));
      return;
    }
    const std::string message = subject(change) + ": " + answerText(a) + " -> " + answerText(b) +
                                "; old: " + oldReason + "; new: " + newReason;
    if (format_ == OutputFormat::kText) {
      out_.line(message);
      return;
    }
    const Place at = annotator_.place(oldTrace, newTrace);
    out_.line(githubAnnotation("warning", new_.name, at.line, at.column, message + at.note));
  }

  void writeSummary(const char* asked, std::size_t count) {
    if (format_ == OutputFormat::kJson) {
      JsonLine summary;
      summary.field(asked, count).field("changed", changed_);
      for (int k = 0; k < kChangeKinds; ++k) summary.field(kKindName[k], counts_[k]);
      out_.line(JsonLine().field("summary", summary).str());
      return;
    }
    std::string line = "changed: " + std::to_string(changed_) + " of " + std::to_string(count) +
                       (std::string(asked) == "questions" ? " decisions" : " classes");
    std::string kinds;
    for (int k = 0; k < kChangeKinds; ++k) {
      if (counts_[k] == 0) continue;
      std::string text = kKindName[k];  // in words: "include to exclude"
      std::replace(text.begin(), text.end(), '_', ' ');
      kinds += (kinds.empty() ? "" : ", ") + text + " " + std::to_string(counts_[k]);
    }
    out_.line(kinds.empty() ? line : line + " (" + kinds + ")");
  }

  [[nodiscard]] bool changed() const { return changed_ != 0; }

 private:
  static std::string subject(const Change& c) {
    const std::string app = c.anyApp ? "*" : quoted(c.app);
    if (c.kind.empty()) return app + " " + quoted(c.destination);
    const std::string more =
        c.also.empty() ? "" : " (and " + std::to_string(c.also.size()) + " more)";
    const std::string ending = c.ending.empty() ? "" : " ending in " + quoted(c.ending);
    return app + more + " " + c.kind + " " + quoted(c.pattern) + ending + " (e.g. " +
           quoted(c.destination) + ")";
  }

  static std::string jsonChange(const Change& c, ChangeKind kind, const Answer& a, const Answer& b,
                                const std::string& oldReason, const std::string& newReason) {
    JsonLine line;
    line.field("app", c.anyApp ? "*" : c.app);
    if (c.kind.empty()) {
      line.field("destination", c.destination);
    } else {
      line.field("class", c.kind).field("pattern", c.pattern).field("example", c.destination);
      if (!c.ending.empty()) line.field("ending", c.ending);
      if (!c.also.empty()) line.field("also", c.also);
    }
    return line.field("change", kKindName[kind])
        .field("old", sideJson(a, oldReason))
        .field("new", sideJson(b, newReason))
        .str();
  }

  static JsonLine sideJson(const Answer& a, const std::string& reason) {
    return JsonLine()
        .field("decision", mapper::decisionName(a.decision))
        .field("id", a.value)
        .field("reason", reason);
  }

  Side& old_;
  Side& new_;
  OutputFormat format_;
  OutputSink& out_;
  Annotator annotator_;
  std::size_t changed_ = 0;
  std::size_t counts_[kChangeKinds] = {};
};

// The QUERIES mode: every question asked of both documents.
void compareQuestions(Side& before, Side& after, const std::vector<Question>& questions,
                      Reporter& reporter) {
  std::vector<Answer> a(questions.size()), b(questions.size());
  const auto answerAll = [&questions](Side& side, std::vector<Answer>& answers) {
    for (std::size_t i = 0; i < questions.size(); ++i) {
      answers[i] = side.ask(questions[i].app, questions[i].destination, nullptr);
    }
  };
  inParallel([&] { answerAll(before, a); }, [&] { answerAll(after, b); });
  for (std::size_t i = 0; i < questions.size(); ++i) {
    if (a[i] != b[i]) reporter.report({questions[i].app, false, questions[i].destination, "", "", "", {}},
                                      questions[i].app);
  }
  reporter.writeSummary("questions", questions.size());
}

// The three kinds of destinations, each with its own classes.
enum DestinationKind { kNames, kIpv4, kIpv6, kDestinationKinds };

// The classes of every kind for the keys of `selection`, over `base`.
struct ClassSets {
  std::unique_ptr<ClassSet> kinds[kDestinationKinds];
};

ClassSets classSets(const KeySelection& selection, const ClassSets* base,
                    const std::unordered_set<std::string>& wildcards) {
  ClassSets sets;
  const auto baseOf = [base](int kind) { return base ? base->kinds[kind].get() : nullptr; };
  const ClassSet& names =
      *(sets.kinds[kNames] = nameClasses(selection, baseOf(kNames), wildcards));
  sets.kinds[kIpv4] = networkClasses(selection, cidr::kIPv4Bits, baseOf(kIpv4), names, wildcards);
  sets.kinds[kIpv6] = networkClasses(selection, cidr::kIPv6Bits, baseOf(kIpv6), names, wildcards);
  return sets;
}

// Applications with the rule numbers they select in OLD and in NEW.
struct AppGroup {
  int oldRule = 0, newRule = 0;
  std::vector<std::string> apps;  // "" stands for every application no document names
};

// The complete diff: for each group of applications, every class of
// destinations its rule numbers (and rule 0) cut, asked once per document.
// Rule 0's classes are asked once for all: a class that lies inside a class
// of the group's own rules takes its answer from there when that rule
// decides, else from rule 0 (the fallback), so it is asked again only when
// the two documents' answers differ.
class CompleteDiff {
 public:
  CompleteDiff(Side& before, Side& after, Reporter& reporter)
      : old_(before), new_(after), reporter_(reporter),
        oldKeys_(storedKeys(before.rules())), newKeys_(storedKeys(after.rules())) {
    wildcards_ = oldKeys_.wildcards;
    wildcards_.insert(newKeys_.wildcards.begin(), newKeys_.wildcards.end());
  }

  void run() {
    const std::vector<AppGroup> groups = appGroups();
    base_ = classSets(selection(0, 0), nullptr, wildcards_);
    for (int k = 0; k < kDestinationKinds; ++k) {
      baseAnswers_[k] = askAll(other_, base_.kinds[k]->classes(), false);
    }
    for (std::size_t i = 0; i < groups.size(); ++i) {
      progress_.show("tpa: diff: application group " + std::to_string(i + 1) + " of " +
                     std::to_string(groups.size()));
      diffGroup(groups[i]);
    }
    progress_.clear();
    writeChanges();
    reporter_.writeSummary("classes", classes_);
  }

 private:
  // Every application either document names (not the marker of every
  // application), grouped by the rule numbers it selects; the unnamed ones
  // first, under a name no document has.
  std::vector<AppGroup> appGroups() {
    std::vector<std::string> apps;
    std::unordered_set<std::string> seen;
    for (const Side* side : {&old_, &new_}) {
      for (const parser::Rule& rule : side->rules()) {
        for (const std::string& app : rule.apps) {
          if (app != sigma::sentinel::LAMBDA_STRING && seen.insert(app).second) apps.push_back(app);
        }
      }
    }
    other_ = "tpa.unknown.app";
    while (seen.count(other_) != 0) other_ += "_";
    std::map<std::pair<int, int>, std::size_t> index;
    std::vector<AppGroup> groups;
    apps.insert(apps.begin(), "");
    for (const std::string& app : apps) {
      const std::pair<int, int> rules = {ruleOf(old_, app), ruleOf(new_, app)};
      const auto [it, fresh] = index.emplace(rules, groups.size());
      if (fresh) groups.push_back({rules.first, rules.second, {}});
      groups[it->second].apps.push_back(app);
    }
    return groups;
  }

  int ruleOf(Side& side, const std::string& app) {
    mapper::QueryTrace trace;
    (void)side.ask(app.empty() ? other_ : app, "tpa-probe", &trace);
    return trace.rule;
  }

  // The keys read under `oldRule` in OLD and `newRule` in NEW; rule 0's
  // belong to the base classes, so a rule 0 side adds nothing of its own.
  KeySelection selection(int oldRule, int newRule) const {
    KeySelection s;
    const auto take = [&s](const DocumentKeys& keys, int rule, bool base) {
      if ((rule == 0) != base) return;
      if (const auto it = keys.stems.find(rule); it != keys.stems.end()) s.stems.push_back(&it->second);
      if (const auto it = keys.networks.find(rule); it != keys.networks.end()) {
        s.networks.push_back(&it->second);
      }
    };
    const bool base = oldRule == 0 && newRule == 0;
    take(oldKeys_, oldRule, base);
    take(newKeys_, newRule, base);
    return s;
  }

  // Asks every class's example for `app` in both documents at once.
  std::vector<Pair> askAll(const std::string& app, const std::vector<DestinationClass>& classes,
                           bool traced) {
    std::vector<Pair> pairs(classes.size());
    const auto answerAll = [&](Side& side, Answer Pair::*slot) {
      for (std::size_t i = 0; i < classes.size(); ++i) {
        if (classes[i].sameAs >= 0) {
          pairs[i].*slot = pairs[static_cast<std::size_t>(classes[i].sameAs)].*slot;
          continue;
        }
        if (classes[i].example.empty()) continue;
        mapper::QueryTrace trace;  // a query adds to the trace it is given
        pairs[i].*slot = side.ask(app, classes[i].example, traced ? &trace : nullptr);
      }
    };
    inParallel([&] { answerAll(old_, &Pair::old); }, [&] { answerAll(new_, &Pair::neu); });
    return pairs;
  }

  void diffGroup(const AppGroup& group) {
    const bool base = group.oldRule == 0 && group.newRule == 0;
    if (base) {
      for (int k = 0; k < kDestinationKinds; ++k) {
        const auto& classes = base_.kinds[k]->classes();
        for (std::size_t i = 0; i < classes.size(); ++i) {
          if (classes[i].sameAs >= 0 || !baseAnswers_[k][i].changed()) continue;
          reportAll(group, classes[i], baseAnswers_[k][i]);
        }
        classes_ += classes.size() * group.apps.size();
      }
      return;
    }
    const ClassSets own = classSets(selection(group.oldRule, group.newRule), &base_, wildcards_);
    const std::string& asked = group.apps.front().empty() ? other_ : group.apps.front();
    for (int k = 0; k < kDestinationKinds; ++k) diffKind(group, asked, *own.kinds[k], k);
  }

  void diffKind(const AppGroup& group, const std::string& asked, const ClassSet& own, int kind) {
    const std::vector<DestinationClass>& classes = own.classes();
    const std::vector<Pair> answers = askAll(asked, classes, true);
    bool anyOneSided = false, anyFellBack = false;
    for (std::size_t i = 0; i < classes.size(); ++i) {
      const Pair& p = answers[i];
      const bool bothDecided = p.old.decided && p.neu.decided;
      const bool own = classes[i].sameAs < 0;  // else its first class reports for it
      if (own && p.changed() && (classes[i].joint || bothDecided)) {
        reportClass(group, classes, answers, i);
      }
      if (!classes[i].hasBase || bothDecided) continue;
      anyFellBack = true;
      anyOneSided = anyOneSided || p.old.decided || p.neu.decided;
    }
    classes_ += classes.size() * group.apps.size();
    if (anyFellBack) diffBase(group, own, answers, kind, anyOneSided);
  }

  // Reports classes[i]; the classes of one network (its endings, which
  // follow each other) that all answer alike are one report, of the whole
  // network, made at the first of them.
  void reportClass(const AppGroup& group, const std::vector<DestinationClass>& classes,
                   const std::vector<Pair>& answers, std::size_t i) {
    if (classes[i].kind != "network") return reportAll(group, classes[i], answers[i]);
    const auto same = [&](std::size_t k) { return classes[k].pattern == classes[i].pattern; };
    std::size_t first = i, end = i + 1;
    while (first > 0 && same(first - 1)) --first;
    while (end < classes.size() && same(end)) ++end;
    bool alike = true;
    for (std::size_t k = first; k < end; ++k) {
      alike = alike && !(answers[k].old != answers[i].old) && !(answers[k].neu != answers[i].neu);
    }
    if (!alike) return reportAll(group, classes[i], answers[i]);
    if (i == first) reportAll(group, wholeNetwork(classes[i]), answers[i]);
  }

  static DestinationClass wholeNetwork(DestinationClass c) {
    c.ending.clear();
    return c;
  }

  // The rule-0 classes inside the group's classes that fell back in a
  // document: each answers as its own class does there, rule 0's answer.
  void diffBase(const AppGroup& group, const ClassSet& own, const std::vector<Pair>& answers,
                int kind, bool everyClass) {
    const std::vector<DestinationClass>& baseClasses = base_.kinds[kind]->classes();
    const std::vector<Pair>& baseAnswers = baseAnswers_[kind];
    for (std::size_t j = 0; j < baseClasses.size(); ++j) {
      if (!everyClass && !baseAnswers[j].changed()) continue;
      const int o = own.owner(baseClasses[j]);
      if (o < 0 || !own.classes()[o].hasBase) continue;
      const Pair& at = answers[static_cast<std::size_t>(o)];
      const Answer& a = at.old.decided ? at.old : baseAnswers[j].old;
      const Answer& b = at.neu.decided ? at.neu : baseAnswers[j].neu;
      if (a != b) reportAll(group, baseClasses[j], {a, b});
    }
  }

  // Notes the change of `c` for the group's applications; the same change
  // (class and both answers) of several groups is one report.
  void reportAll(const AppGroup& group, const DestinationClass& c, const Pair& p) {
    const std::string key = c.kind + '\n' + c.pattern + '\n' + c.ending + '\n' + c.example + '\n' +
                            std::to_string(p.old.decision) + ' ' + std::to_string(p.old.value) +
                            ' ' + std::to_string(p.neu.decision) + ' ' +
                            std::to_string(p.neu.value);
    const auto [it, fresh] = merged_.emplace(key, changes_.size());
    if (fresh) changes_.push_back({"", false, c.example, c.kind, c.pattern, c.ending, {}});
    Change& change = changes_[it->second];
    for (const std::string& app : group.apps) {
      if (app.empty()) {  // every application no document names comes first
        if (!change.anyApp && !change.app.empty()) change.also.insert(change.also.begin(), change.app);
        change.app = "*";
        change.anyApp = true;
      } else if (change.app.empty()) {
        change.app = app;
      } else {
        change.also.push_back(app);
      }
    }
  }

  void writeChanges() {
    for (const Change& change : changes_) {
      reporter_.report(change, change.anyApp ? other_ : change.app);
    }
  }

  Side& old_;
  Side& new_;
  Reporter& reporter_;
  DocumentKeys oldKeys_, newKeys_;
  std::unordered_set<std::string> wildcards_;  // of both documents
  std::string other_;  // a name no document has, for every application no document names
  ClassSets base_;     // the classes rule 0 cuts
  std::vector<Pair> baseAnswers_[kDestinationKinds];  // of base_, for other_
  std::vector<Change> changes_;  // in the order first found
  std::unordered_map<std::string, std::size_t> merged_;  // class and answers -> its change
  std::size_t classes_ = 0;    // classes compared, once per application
  ProgressLine progress_;      // how far the diff has come, on a terminal
};

// Builds one document; reads it back into its rules (a second reading of
// the whole text) only when questions or annotations need them.
int loadSide(const std::string& path, bool needRules, bool annotate, Side& side) {
  side.name = displayName(path);
  if (int code = buildAndRead(path, side.document, needRules, &side.failure)) return code;
  if (annotate) {
    side.scan = std::make_unique<DocumentScan>(scanDocument(side.document.text));
    side.lines = std::make_unique<LineIndex>(side.document.text);
  }
  return kExitOk;
}

}  // namespace

int runDiff(const Invocation& invocation) {
  const std::vector<std::string>& files = invocation.operands;
  const bool annotate = invocation.format == OutputFormat::kGithub;
  Side before, after;
  int beforeCode = kExitOk, afterCode = kExitOk;
  const bool needRules = files.size() == 2 || annotate;
  inParallel([&] { afterCode = loadSide(files[1], needRules, annotate, after); },
             [&] { beforeCode = loadSide(files[0], needRules, annotate, before); });
  OutputSink out(STDOUT_FILENO, false);
  if (beforeCode != kExitOk || afterCode != kExitOk) {
    for (const Side* side : {&before, &after}) {
      if (side->failure.exitCode != kExitOk && invocation.format != OutputFormat::kText) {
        writeBuildFailure(out, invocation.format, side->name, side->failure);
      }
    }
    return finishOutput(out, beforeCode != kExitOk ? beforeCode : afterCode);
  }
  Reporter reporter(before, after, invocation.format, out);
  if (files.size() > 2) {
    std::vector<Question> questions;
    if (int code = readQuestions(files[2], questions)) return code;
    compareQuestions(before, after, questions, reporter);
  } else {
    CompleteDiff(before, after, reporter).run();
  }
  return finishOutput(out, reporter.changed() ? kExitChanged : kExitOk);
}

}  // namespace tpa::tools
