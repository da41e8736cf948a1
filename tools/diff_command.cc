// `tpa diff`: builds two rules documents and lists every question whose
// decision differs between them, with the reason each side gives.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "api/analyzer.h"
#include "api/constants.h"
#include "api/diagnostics.h"
#include "cidr/cidr.h"
#include "mapper/trace.h"
#include "tools/build_guard.h"
#include "tools/built_document.h"
#include "tools/commands.h"
#include "tools/decision_reason.h"
#include "tools/doc_scan.h"
#include "tools/line_io.h"
#include "tools/lint.h"
#include "tools/output_format.h"

namespace tpa::tools {
namespace {

// The first label of the fresh name asked under a wildcard.
constexpr char kProbeLabel[] = "tpa-probe";

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

// Address bytes (4 or 16) as text.
std::string addressText(const unsigned char* bytes, bool v6) {
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(v6 ? AF_INET6 : AF_INET, bytes, text, sizeof text);
  return text;
}

// Adds `delta` (+1 or -1) to a big-endian address, wrapping.
void step(unsigned char* bytes, int width, int delta) {
  for (int i = width - 1; i >= 0; --i) {
    const int v = bytes[i] + delta;
    bytes[i] = static_cast<unsigned char>(v & 0xff);
    if (v >= 0 && v <= 0xff) return;
  }
}

// First and last address of the network whose leading bits are `bits`, and
// the address just past it (just before it for the last network).
void networkProbes(const std::string& bits, bool v6, std::vector<std::string>& out) {
  const int width = v6 ? 16 : 4;
  unsigned char first[16] = {}, last[16] = {};
  for (int i = 0; i < width * 8; ++i) {
    const bool one = i < static_cast<int>(bits.size()) ? bits[i] == '1' : false;
    const bool lastOne = i < static_cast<int>(bits.size()) ? one : true;
    if (one) first[i / 8] |= static_cast<unsigned char>(0x80u >> (i % 8));
    if (lastOne) last[i / 8] |= static_cast<unsigned char>(0x80u >> (i % 8));
  }
  out.push_back(addressText(first, v6));
  out.push_back(addressText(last, v6));
  bool allOnes = true;
  for (int i = 0; i < width; ++i) allOnes = allOnes && last[i] == 0xff;
  unsigned char* outside = allOnes ? first : last;
  step(outside, width, allOnes ? -1 : 1);
  out.push_back(addressText(outside, v6));
}

bool isBits(const std::string& s) {
  return !s.empty() && s.find_first_not_of("01") == std::string::npos;
}

// The destinations asked about one stored entry (sanitised as the rule holds it).
void probesOf(const std::string& entry, std::vector<std::string>& out) {
  if (entry.empty()) return;
  if (entry[0] == '*') {
    const std::string rest = entry.substr(1);
    const std::string own = !rest.empty() && rest[0] == '.' ? rest.substr(1) : rest;
    if (!own.empty()) out.push_back(own);
    out.push_back(kProbeLabel + rest);
    return;
  }
  if (isBits(entry) && entry.size() < 128) {
    networkProbes(entry, true, out);  // an IPv6 network's leading bits
    return;
  }
  out.push_back(entry);
  if (cidr::isIPv4Address(entry)) {
    int a = 0, b = 0, c = 0, d = 0, prefix = 32;
    (void)std::sscanf(entry.c_str(), "%d.%d.%d.%d/%d", &a, &b, &c, &d, &prefix);
    const unsigned char bytes[4] = {static_cast<unsigned char>(a), static_cast<unsigned char>(b),
                                    static_cast<unsigned char>(c), static_cast<unsigned char>(d)};
    out.back() = addressText(bytes, false);
    if (prefix <= 0 || prefix >= 32) return;  // stored as the address itself
    std::string bits;
    for (int i = 0; i < prefix; ++i) bits += (bytes[i / 8] & (0x80u >> (i % 8))) ? '1' : '0';
    networkProbes(bits, false, out);
  } else if (cidr::isIPv6Address(entry)) {
    unsigned char bytes[16];
    if (inet_pton(AF_INET6, entry.c_str(), bytes) == 1) out.back() = addressText(bytes, true);
  }
}

// The questions derived from two documents, each destination with the
// applications of the rules that name it.
class QuestionSet {
 public:
  void addDocument(const std::vector<parser::Rule>& rules) {
    std::vector<std::string> probes;
    for (const parser::Rule& rule : rules) {
      std::vector<const std::string*> apps;
      for (const std::string& app : rule.apps) {
        if (app == sigma::sentinel::LAMBDA_STRING) continue;
        apps.push_back(&app);
        if (knownApps_.insert(app).second) appOrder_.push_back(app);
      }
      probes.clear();
      for (const std::string& e : rule.includeList) probesOf(e, probes);
      for (const std::string& e : rule.excludeList) probesOf(e, probes);
      for (const std::string& p : probes) addDestination(p, apps);
    }
  }

  // Each destination for the applications that name it, one application of
  // another rule, and an application no rule names.
  std::vector<Question> questions() const {
    std::string unknown = "tpa.unknown.app";
    while (knownApps_.count(unknown) != 0) unknown += "_";
    std::vector<Question> out;
    for (std::size_t i = 0; i < destinations_.size(); ++i) {
      const std::vector<std::string>& apps = apps_[i];
      for (const std::string& app : apps) out.push_back({app, destinations_[i]});
      for (const std::string& other : appOrder_) {
        if (std::find(apps.begin(), apps.end(), other) != apps.end()) continue;
        out.push_back({other, destinations_[i]});
        break;
      }
      out.push_back({unknown, destinations_[i]});
    }
    return out;
  }

 private:
  void addDestination(const std::string& destination, const std::vector<const std::string*>& apps) {
    const auto [it, fresh] = index_.emplace(destination, destinations_.size());
    if (fresh) {
      destinations_.push_back(destination);
      apps_.emplace_back();
    }
    std::vector<std::string>& known = apps_[it->second];
    for (const std::string* app : apps) {
      if (std::find(known.begin(), known.end(), *app) == known.end()) known.push_back(*app);
    }
  }

  std::vector<std::string> destinations_;               // in order of first mention
  std::vector<std::vector<std::string>> apps_;          // per destination, the apps naming it
  std::unordered_map<std::string, std::size_t> index_;  // destination -> its index
  std::vector<std::string> appOrder_;  // every application, in order of first mention
  std::unordered_set<std::string> knownApps_;
};

// QUERIES in the `tpa query` stream format. Returns kExitOk or the exit code.
int readQuestions(const std::string& path, std::vector<Question>& out) {
  std::string text;
  if (!loadRules(path, text)) return kExitNoInput;
  std::size_t start = 0, number = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++number;
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
  bool operator!=(const Answer& o) const { return decision != o.decision || value != o.value; }
};

enum ChangeKind { kIncludeToExclude, kExcludeToInclude, kIdChanged, kChangeKinds };
constexpr const char* kKindText[kChangeKinds] = {"include to exclude", "exclude to include",
                                                 "id changed"};
constexpr const char* kKindName[kChangeKinds] = {"include_to_exclude", "exclude_to_include",
                                                 "id_changed"};

ChangeKind kindOf(const Answer& before, const Answer& after) {
  if (before.decision == after.decision) return kIdChanged;
  return after.decision == mapper::TPA_DECISION_INCLUDE ? kExcludeToInclude : kIncludeToExclude;
}

std::string answerText(const Answer& a) {
  return std::string(a.decision == mapper::TPA_DECISION_INCLUDE ? "include " : "exclude ") +
         std::to_string(a.value);
}

// One side of the comparison: a built document, and where its rules start.
struct Side {
  std::string name;
  BuiltDocument document;
  // Line and column of each rule's '{', for annotations.
  std::vector<std::pair<std::size_t, std::size_t>> rulePlaces;

  Answer ask(const Question& q, mapper::QueryTrace* trace) {
    Answer a;
    a.decision = api::Inspect::query(document.analyzer, q.app, q.destination, a.value, trace);
    return a;
  }
};

class Differ {
 public:
  Differ(Side& before, Side& after, OutputFormat format, OutputSink& out)
      : old_(before), new_(after), format_(format), out_(out) {}

  void compare(const std::vector<Question>& questions) {
    std::vector<Answer> before(questions.size()), after(questions.size());
    inParallel([&] { answerAll(old_, questions, before); },
               [&] { answerAll(new_, questions, after); });
    for (std::size_t i = 0; i < questions.size(); ++i) {
      if (before[i] != after[i]) report(questions[i], before[i], after[i]);
    }
    writeSummary(questions.size());
  }

  [[nodiscard]] bool changed() const { return changed_ != 0; }

 private:
  static void answerAll(Side& side, const std::vector<Question>& questions,
                        std::vector<Answer>& answers) {
    for (std::size_t i = 0; i < questions.size(); ++i) answers[i] = side.ask(questions[i], nullptr);
  }

  // Only a changed decision is asked again with a trace, which costs more.
  void report(const Question& q, const Answer& a, const Answer& b) {
    mapper::QueryTrace oldTrace, newTrace;
    (void)old_.ask(q, &oldTrace);
    (void)new_.ask(q, &newTrace);
    const ChangeKind kind = kindOf(a, b);
    ++counts_[kind];
    ++changed_;
    const std::string oldReason = decisionReason(oldTrace);
    const std::string newReason = decisionReason(newTrace);
    if (format_ == OutputFormat::kJson) {
      out_.line(JsonLine()
                    .field("app", q.app)
                    .field("destination", q.destination)
                    .field("change", kKindName[kind])
                    .raw("old", sideJson(a, oldReason))
                    .raw("new", sideJson(b, newReason))
                    .str());
      return;
    }
    const std::string message = quoted(q.app) + " " + quoted(q.destination) + ": " + answerText(a) +
                                " -> " + answerText(b) + "; old: " + oldReason +
                                "; new: " + newReason;
    if (format_ == OutputFormat::kText) {
      out_.line(message);
      return;
    }
    // The annotation goes on the rule that now decides, else on the one that did.
    std::vector<int> at = decidingPositions(new_.document.parser.getRules(), newTrace);
    Side* side = &new_;
    if (at.empty()) {
      at = decidingPositions(old_.document.parser.getRules(), oldTrace);
      if (!at.empty()) side = &old_;
    }
    std::size_t line = 1, column = 1;
    if (!at.empty() && static_cast<std::size_t>(at[0]) <= side->rulePlaces.size()) {
      std::tie(line, column) = side->rulePlaces[at[0] - 1];
    }
    out_.line(githubAnnotation("warning", side->name, line, column, message));
  }

  static std::string sideJson(const Answer& a, const std::string& reason) {
    return JsonLine()
        .field("decision", a.decision == mapper::TPA_DECISION_INCLUDE ? "include" : "exclude")
        .field("id", static_cast<long long>(a.value))
        .field("reason", reason)
        .str();
  }

  void writeSummary(std::size_t questions) {
    if (format_ == OutputFormat::kJson) {
      JsonLine summary;
      summary.field("questions", static_cast<long long>(questions))
          .field("changed", static_cast<long long>(changed_));
      for (int k = 0; k < kChangeKinds; ++k) {
        summary.field(kKindName[k], static_cast<long long>(counts_[k]));
      }
      out_.line(JsonLine().raw("summary", summary.str()).str());
      return;
    }
    std::string line =
        "changed: " + std::to_string(changed_) + " of " + std::to_string(questions) + " decisions";
    std::string kinds;
    for (int k = 0; k < kChangeKinds; ++k) {
      if (counts_[k] == 0) continue;
      kinds += (kinds.empty() ? "" : ", ") + std::string(kKindText[k]) + " " +
               std::to_string(counts_[k]);
    }
    out_.line(kinds.empty() ? line : line + " (" + kinds + ")");
  }

  Side& old_;
  Side& new_;
  OutputFormat format_;
  OutputSink& out_;
  std::size_t changed_ = 0;
  std::size_t counts_[kChangeKinds] = {};
};

// Builds one document; reads it back into its rules (a second reading of
// the whole text) only when questions or annotations need them.
int loadSide(const std::string& path, bool needRules, bool annotate, Side& side) {
  side.name = displayName(path);
  if (!needRules) return buildDocument(path, side.document.text, side.document.analyzer);
  if (int code = buildAndRead(path, side.document)) return code;
  if (annotate) {
    const DocumentScan scan = scanDocument(side.document.text);
    const LineIndex lines(side.document.text);
    for (std::size_t object : scan.rules)
      side.rulePlaces.push_back(lines.at(scan.objects[object].open));
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
  if (beforeCode != kExitOk || afterCode != kExitOk) {
    return beforeCode != kExitOk ? beforeCode : afterCode;
  }
  std::vector<Question> questions;
  if (files.size() > 2) {
    if (int code = readQuestions(files[2], questions)) return code;
  } else {
    QuestionSet derived;
    derived.addDocument(before.document.parser.getRules());
    derived.addDocument(after.document.parser.getRules());
    questions = derived.questions();
  }
  OutputSink out(STDOUT_FILENO, false);
  Differ differ(before, after, invocation.format, out);
  differ.compare(questions);
  return finishOutput(out, differ.changed() ? kExitChanged : kExitOk);
}

}  // namespace tpa::tools
