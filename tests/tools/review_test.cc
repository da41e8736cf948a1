// tpa diff and the machine-readable formats, run as a child process: each
// kind of change shows up in diff, and the complete diff is checked against
// brute-force probes built from pieces of both documents' keys. tpa import
// has its own import_test.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "run_tool.h"
#include "tpa/api/analyzer.h"

namespace tpa::testing {
namespace {

TEST(TpaDiff, ReportsEachChangedClassWithReasonsAndExitStatus) {
  const std::string base = "[{'match_apps':['m'],'include':['*.x.test','10.0.0.0/8'],'id':'1'}]";
  const std::string cdn = "[{'match_apps':['m'],'include':['*.x.test','cdn.x.test'],'id':'1'}]";
  const struct {
    std::string before, after, queries, options;
    int code;
    std::vector<std::string> parts;  // of standard output (or error, for codes above 1)
  } cases[] = {
      {base, base, "", "", 0, {"changed: 0 of "}},
      // A name beside a wildcard takes every name that ends in its last
      // character and the wildcard's text (a.cdn.x.test, xn.x.test) from the
      // wildcard.
      {"[{'match_apps':['m'],'include':['*.x.test'],'id':'1'}]", cdn, "", "", 1,
       {"\"m\" ending \"*n.x.test\" (e.g. \"tpa-probe.cdn.x.test\"): include 1 -> exclude -1; "
        "old: rule number 1: include list, wildcard \"#*.x.test$11\" (only include matched); new: "
        "rule number 1, then rule number 0: no list matched, the default\n",
        "changed: 1 of 24 classes (include to exclude 1)\n"}},
      // In json only the summary: the model test below reads the classes.
      {"[{'match_apps':['m'],'include':['*.x.test'],'id':'1'}]", cdn, "", "--format=json", 1,
       {"{\"summary\":{\"classes\":24,\"changed\":1,\"include_to_exclude\":1,"}},
      {base, "[{'match_apps':['m'],'include':['*.x.test','10.0.0.0/9'],'id':'1'}]", "", "", 1,
       {"\"m\" network \"10.128.0.0/9\" (e.g. \"10.213.85.85\"): include 1 -> exclude -1; old: "
        "rule number 1: include list, network prefix of 8 bits \"#00001010$11\"",
        "\"m\" name \"00001010\" (e.g. \"00001010\"): include 1 -> exclude -1"}},
      {base, "[{'match_apps':['m'],'include':['*.x.test','10.0.0.0/8'],'id':'1'},{'exclude':["
       "'*.x.test'],'include':['y.test']}]", "", "", 1,
       {"* (and 1 more) name \"y.test\" (e.g. \"y.test\"): exclude -1 -> include 2147483647",
        "* ending \"*.x.test\" (e.g. \"tpa-probe.x.test\"): exclude -1 -> exclude 2147483647"}},
      // Annotations stand at NEW's deciding entry, else at the rule of NEW
      // where OLD's deciding entry stood.
      {base, "[\n {'include':['a.test']},\n {'match_apps':['m'],\n  'include':['*.x.test'],'id':'5'}]",
       "", "--format=github", 1,
       {"::warning file=NEW,line=2,col=15::* (and 1 more) name \"a.test\" (e.g. \"a.test\"): exclude -1 -> "
        "include 2147483647",
        "::warning file=NEW,line=4,col=15::\"m\" ending \"*.x.test\" (e.g. \"tpa-probe.x.test\"): "
        "include 1 -> include 5"}},
      {"[{'match_apps':['m'],'include':['*.x.test'],'id':'1'}]", "[\n{'match_apps':['m'],'id':'1',"
       "'include':['*.x.test','cdn.x.test']}]", "", "--format=github", 1,
       {"::warning file=NEW,line=2,col=1::\"m\" ending \"*n.x.test\" (e.g. "
        "\"tpa-probe.cdn.x.test\"): include 1 -> exclude -1",
        "(no entry of NEW decides; in OLD the rule at position 1 did)\n"}},
      // QUERIES: the questions asked, reported as before.
      {base, "[{'match_apps':['m'],'include':['*.x.test'],'id':'1'}]", "m\t10.0.0.1\n",
       "--format=json", 1,
       {"{\"app\":\"m\",\"destination\":\"10.0.0.1\",\"change\":\"include_to_exclude\",\"old\":{"
        "\"decision\":\"include\",\"id\":1,\"reason\":\"rule number 1: include list, network "
        "prefix of 8 bits \\\"#00001010$11\\\" (only include matched)\"},\"new\":{\"decision\":"
        "\"exclude\",\"id\":-1,\"reason\":",
        "\n{\"summary\":{\"questions\":1,\"changed\":1,\"include_to_exclude\":1,"
        "\"exclude_to_include\":0,\"id_changed\":0}}\n"}},
      {base, "[\n {'include':['a.test']},\n {'match_apps':['m'],'include':['*.x.test'],'id':'5'}]",
       "m\tb.x.test\n", "--format=github", 1,
       {"::warning file=NEW,line=3,col=34::\"m\" \"b.x.test\": include 1 -> include 5;"}},
      {base, base, "no tab\n", "", 65, {"line 1: no TAB between APP and DEST"}},
  };
  for (const auto& c : cases) {
    TempFile before(doc(c.before)), after(doc(c.after)), queries(c.queries);
    std::vector<std::string> args = {"diff", before.path(), after.path()};
    if (!c.options.empty()) args.insert(args.begin() + 1, c.options);
    if (!c.queries.empty()) args.push_back(queries.path());
    ToolResult r = runTool(args);
    r.out = replaced(r.out, after.path(), "NEW");
    r.err = replaced(r.err, after.path(), "NEW");
    EXPECT_EQ(r.exitCode, c.code) << c.after << "\n" << r.err;
    for (const std::string& part : c.parts) {
      EXPECT_TRUE(has(c.code > 1 ? r.err : r.out, part)) << c.after << "\n" << r.out << r.err;
    }
  }
}

// A document that does not build fails the diff with its own status, and
// in json and github the failure is an object or an annotation that names
// the library's code, or the value that made address parsing throw.
TEST(TpaDiff, ReportsAFailedBuildInEveryFormat) {
  TempFile good(doc("[{'include':['a.test']}]")), throwing(doc("[{'include':['ok.test',\n 'face/']}]"));
  TempFile broken(doc("[{}"));
  const struct {
    std::string format;
    const TempFile& file;
    int code;
    std::string out, err;
  } cases[] = {
      {"--format=json", broken, 2,
       "{\"file\":\"F\",\"error\":\"build_failed\",\"code\":-4,\"code_name\":"
       "\"TPA_ERROR_JSON_PARSE_MISMATCH\",\"message\":\"build failed: -4 "
       "TPA_ERROR_JSON_PARSE_MISMATCH\"}\n",
       "tpa: build failed: -4 TPA_ERROR_JSON_PARSE_MISMATCH\n"},
      {"--format=github", broken, 2, "::error file=F::build failed: -4 TPA_ERROR_JSON_PARSE_MISMATCH\n",
       "tpa: build failed: -4"},
      {"--format=json", throwing, 3,
       "{\"file\":\"F\",\"error\":\"build_threw\",\"exception\":\"std::out_of_range\",\"key\":"
       "\"include\",\"value\":\"face/\",\"line\":2,\"column\":3,\"message\":\"build threw "
       "std::out_of_range: a network with nothing after its '/', the include value \\\"face/\\\"\"}\n",
       "(include value \"face/\" at F:2:3)"},
      {"--format=github", throwing, 3,
       "::error file=F,line=2,col=3::build threw std::out_of_range: a network with nothing after "
       "its '/', the include value \"face/\"\n",
       "tpa: build threw: "},
  };
  for (const auto& c : cases) {
    const ToolResult r = runTool({"diff", c.format, good.path(), c.file.path()});
    EXPECT_EQ(r.exitCode, c.code) << c.format;
    EXPECT_EQ(replaced(r.out, c.file.path(), "F"), c.out) << c.format;
    EXPECT_TRUE(has(replaced(r.err, c.file.path(), "F"), c.err)) << r.err;
  }
}

// The complete diff against brute force: random pairs of documents (the
// second an edit of the first) and probes made of pieces of both documents'
// keys. Every probe whose decision differs must lie in a reported class with
// the same change, and every reported example must really differ. A fixed
// seed in CI; TPA_MODEL_SEED=random (and TPA_MODEL_ROUNDS) for fresh ones.
class DiffModel {
 public:
  explicit DiffModel(unsigned seed) : rng_(seed) {}

  std::string document() {
    rules_.clear();
    // Sometimes eleven rules or more: rule 11's keys end in "$111", which
    // holds rule 1's "$11".
    for (int n = pick(4) == 0 ? 11 + pick(3) : 1 + pick(4); n > 0; --n) rules_.push_back(rule());
    return join(rules_);
  }

  // The last document with one to three edits: an entry or a rule added,
  // changed or removed, another id, other applications.
  std::string edited() {
    std::vector<std::string> rules = rules_;
    for (int n = 1 + pick(3); n > 0; --n) {
      const std::size_t at = pick(static_cast<int>(rules.size()));
      switch (pick(4)) {
        case 0:
          rules.push_back(rule());
          break;
        case 1:
          if (rules.size() > 1) rules.erase(rules.begin() + static_cast<long>(at));
          break;
        default:
          rules[at] = rule();
      }
    }
    return join(rules);
  }

  // Destinations made of pieces of the documents' entries.
  std::vector<std::string> probes(const std::string& a, const std::string& b) {
    std::set<std::string> out;
    static const std::regex kValue("\"([^\"]*)\"");
    for (const std::string* text : {&a, &b}) {
      for (std::sregex_iterator it(text->begin(), text->end(), kValue), end; it != end; ++it) {
        addProbes(it->str(1), out);
      }
    }
    for (int n = 0; n < 20; ++n) out.insert(name());
    return {out.begin(), out.end()};
  }

 private:
  int pick(int n) { return static_cast<int>(rng_() % static_cast<unsigned>(n)); }

  std::string name() {
    static const char* kLabels[] = {"a", "b", "ab", "x1", "10", "3"};
    std::string out = pick(2) ? "t" : "x.t";
    for (int n = 1 + pick(2); n > 0; --n) out = std::string(kLabels[pick(6)]) + "." + out;
    return out;
  }

  std::string entry() {
    static const char* kAddresses[] = {
        "10.0.0.1",      "10.0.0.3",     "10.1.2.13",     "192.168.1.4",  "10.0.0.0/8",
        "10.1.0.0/16",   "10.0.0.0/9",   "192.168.0.0/16", "2001:db8::1", "2001:db8::/32",
        "2001:db8:1::/48", "2001:db8::13"};
    switch (pick(6)) {
      case 0:
        return kAddresses[pick(12)];
      case 1:
        return "*." + name();
      case 2:
        return pick(3) ? "*" : "";
      default:
        return name();
    }
  }

  std::string list(const char* key) {
    if (pick(3) == 0) return "";
    std::string out = std::string(",\"") + key + "\":[";
    for (int n = pick(4); n > 0; --n) out += "\"" + entry() + "\"" + (n > 1 ? "," : "");
    return out + "]";
  }

  std::string rule() {
    static const char* kApps[] = {"", "\"p\"", "\"q\"", "\"p\",\"q\"", "\"#LAMBDA-APP\"",
                                  "\"#LAMBDA-APP\",\"q\""};
    const int apps = pick(6);
    std::string out = "{\"id\":\"" + std::to_string(1 + pick(4)) + "\"";
    if (apps != 0) out += std::string(",\"match_apps\":[") + kApps[apps] + "]";
    return out + list("include") + list("exclude") + "}";
  }

  void addProbes(const std::string& value, std::set<std::string>& out) {
    if (value.empty() || value == "id" || value == "match_apps" || value == "include" ||
        value == "exclude" || value == "p" || value == "q" || value[0] == '#') {
      return;
    }
    const std::string bare = value.substr(0, value.find('/'));
    out.insert(bare);
    unsigned char bytes[16];
    for (const int family : {AF_INET, AF_INET6}) {  // addresses near this one
      if (inet_pton(family, bare.c_str(), bytes) != 1) continue;
      const bool v4 = family == AF_INET;
      for (int n = 0; n < 6; ++n) {
        const auto value = static_cast<unsigned char>(pick(2) ? rng_() : pick(20));
        bytes[(v4 ? 3 : 15) - pick(v4 ? 2 : 3)] = value;
        if (pick(3) == 0) bytes[v4 ? 1 : 4 + pick(4)] = static_cast<unsigned char>(rng_());
        char text[INET6_ADDRSTRLEN];
        out.insert(inet_ntop(family, bytes, text, sizeof text));
      }
      return;
    }
    static const char* kPrefixes[] = {"", "a", "b.", "x", "1", "*"};
    for (int n = 0; n < 4; ++n) {
      const std::string tail = value.substr(static_cast<std::size_t>(pick(static_cast<int>(value.size()))));
      out.insert(kPrefixes[pick(6)] + tail);
    }
  }

  static std::string join(const std::vector<std::string>& rules) {
    std::string out = "[";
    for (std::size_t i = 0; i < rules.size(); ++i) out += (i ? ",\n" : "") + rules[i];
    return out + "]";
  }

  std::mt19937 rng_;
  std::vector<std::string> rules_;  // of the last document
};

struct Decision {
  std::string decision, id;
  bool operator==(const Decision& o) const { return decision == o.decision && id == o.id; }
};

// The library's own answer, as `tpa query` writes it.
Decision decide(api::TarnPatternAnalyzer& analyzer, const std::string& app, const std::string& to) {
  int value = 0;
  const bool include = analyzer.query(app, to, value) == 1;
  return {include ? "include" : "exclude", std::to_string(value)};
}

struct Reported {
  std::string apps;  // "A,\"B\",\"C\"," : the app field, then the "also" list
  std::string kind, pattern, example, ending;
  Decision old, neu;
};

std::vector<Reported> reportedChanges(const std::string& json) {
  static const std::regex kChange(
      R"re(\{"app":"([^"]*)","class":"(\w+)","pattern":"([^"]*)","example":"([^"]*)"(?:,"ending":"([^"]*)")?(?:,"also":\[([^\]]*)\])?,"change":"\w+","old":\{"decision":"(\w+)","id":(-?\d+).*"new":\{"decision":"(\w+)","id":(-?\d+))re");
  std::vector<Reported> out;
  for (std::sregex_iterator it(json.begin(), json.end(), kChange), end; it != end; ++it) {
    const std::smatch& m = *it;
    out.push_back({m.str(1) + "," + m.str(6) + ",", m[2], m[3], m[4], m[5], {m[7], m[8]},
                   {m[9], m[10]}});
  }
  return out;
}

// The address's bytes and family (0: no address), as the map reads it.
int addressOf(const std::string& text, unsigned char* bytes) {
  if (inet_pton(AF_INET6, text.c_str(), bytes) == 1) return 6;
  unsigned a, b, c, d;
  if (std::sscanf(text.c_str(), "%u.%u.%u.%u", &a, &b, &c, &d) != 4 || a > 255 || b > 255 ||
      c > 255 || d > 255 || text.empty() || text[0] < '0' || text[0] > '9') {
    return 0;
  }
  bytes[0] = a, bytes[1] = b, bytes[2] = c, bytes[3] = d;
  return 4;
}

// The fixed-width text the map stores an address as.
std::string fixedWidth(const unsigned char* bytes, int family) {
  std::string out;
  for (int i = 0; i < (family == 4 ? 4 : 16); ++i) {
    char text[8];
    std::snprintf(text, sizeof text, family == 4 ? "%03d" : "%02x", bytes[i]);
    out += (i == 0 ? "" : family == 4 ? "." : i % 2 == 0 ? ":" : "") + std::string(text);
  }
  return out;
}

bool inClass(const Reported& c, const std::string& destination) {
  unsigned char bytes[16] = {}, net[16] = {};
  const int family = addressOf(destination, bytes);
  if (c.kind == "ending") return family == 0 && destination.size() >= c.pattern.size() - 1 &&
                                 destination.compare(destination.size() - (c.pattern.size() - 1),
                                                     std::string::npos, c.pattern, 1) == 0;
  const std::size_t slash = c.pattern.rfind('/');
  if (c.kind == "name" && (slash == std::string::npos || family == 0)) return c.pattern == destination;
  const int netFamily = addressOf(c.pattern.substr(0, slash), net);
  if (family == 0 || family != netFamily) return false;
  const int bits = std::atoi(c.pattern.c_str() + slash + 1);
  for (int i = 0; i < bits; ++i) {
    if (((bytes[i / 8] ^ net[i / 8]) >> (7 - i % 8)) & 1) return false;
  }
  const std::string framed = "#" + fixedWidth(bytes, family);
  return framed.size() >= c.ending.size() &&
         framed.compare(framed.size() - c.ending.size(), std::string::npos, c.ending) == 0;
}

TEST(TpaDiff, CompleteDiffCoversEveryChangedProbe) {
  const char* seedText = std::getenv("TPA_MODEL_SEED");
  const char* roundsText = std::getenv("TPA_MODEL_ROUNDS");
  const unsigned seed = seedText == nullptr ? 1u
                        : std::string(seedText) == "random" ? std::random_device{}()
                                                           : static_cast<unsigned>(std::atol(seedText));
  const int rounds = roundsText == nullptr ? 60 : std::atoi(roundsText);
  DiffModel model(seed);
  std::size_t changedProbes = 0, reportedClasses = 0;  // the test must test something
  for (int round = 0; round < rounds; ++round) {
    const std::string a = model.document(), b = model.edited();
    SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round) + "\nOLD " +
                 a + "\nNEW " + b);
    TempFile oldFile(a), newFile(b);
    const ToolResult diff = runTool({"diff", "--format=json", oldFile.path(), newFile.path()});
    if (diff.exitCode == 2) {  // a document whose automata run out of states
      EXPECT_TRUE(has(diff.out, "\"error\":\"build_failed\",\"code\":-2")) << diff.out;
      continue;
    }
    ASSERT_LE(diff.exitCode, 1) << diff.err;
    const std::vector<Reported> reported = reportedChanges(diff.out);
    reportedClasses += reported.size();
    api::TarnPatternAnalyzer before, after;
    ASSERT_EQ(before.build(a, false), 0);
    ASSERT_EQ(after.build(b, false), 0);
    for (const Reported& c : reported) {
      std::string app = c.apps.substr(0, c.apps.find(','));
      app = app == "*" ? "zz" : app;
      EXPECT_TRUE(c.old == decide(before, app, c.example) &&
                  c.neu == decide(after, app, c.example) && !(c.old == c.neu))
          << "reported, yet unchanged: " << c.apps << " " << c.example;
    }
    const std::vector<std::string> destinations = model.probes(a, b);
    for (const char* app : {"p", "q", "zz"}) {
      const bool named = a.find(std::string("\"") + app + "\"") != std::string::npos ||
                         b.find(std::string("\"") + app + "\"") != std::string::npos;
      for (const std::string& d : destinations) {
        const Decision was = decide(before, app, d), is = decide(after, app, d);
        if (was == is) continue;
        ++changedProbes;
        bool covered = false;
        for (const Reported& c : reported) {
          const bool forApp = named ? has(c.apps, std::string(app) + ",") && c.apps[0] != '*'
                                    : c.apps.rfind("*,", 0) == 0;
          const bool alsoNamed = named && has(c.apps, "\"" + std::string(app) + "\"");
          covered = covered ||
                    ((forApp || alsoNamed) && c.old == was && c.neu == is && inClass(c, d));
        }
        EXPECT_TRUE(covered) << "missed: " << app << " " << d << ": " << was.decision << " "
                             << was.id << " -> " << is.decision << " " << is.id << "\n" << diff.out;
      }
    }
  }
  EXPECT_GT(changedProbes, static_cast<std::size_t>(rounds));
  EXPECT_GT(reportedClasses, static_cast<std::size_t>(rounds));
  std::printf("%zu changed probes, %zu reported classes\n", changedProbes, reportedClasses);
}

TEST(TpaFormat, CheckAndExplainWriteJsonLines) {
  TempFile rules(doc("[{'include':['cdn.*'],\n 'id':'7'}]"));
  const std::string message =
      R"('*' not only at the start: the text before the last '*' is ignored, so \"cdn.*\" )"
      "matches every destination of this rule";
  const struct {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"check", "--format=json", rules.path()},
       R"({"file":"F","line":1,"column":15,"code":"wildcard-misplaced","message":")" + message +
           "\"}\n" +
           R"({"file":"F","result":0,"result_name":"TPA_ERROR_NONE","rules":1,"warnings":1})"
           "\n"},
      {{"explain", "--format=json", rules.path(), "a", "b.test"},
       R"({"app":"a","destination":"b.test","searched_as":"b.test","app_rule_number":0,)"
       R"("decision":"include","id":7,"rule_number":0,"list":"include","match":"wildcard",)"
       R"("fallback":false,"positions":[1],"reason":"unknown application, rule number 0: )"
       R"x(include list, wildcard ending in \"$01\" (only include matched)"})x"
       "\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(replaced(runTool(c.args).out, rules.path(), "F"), c.out);
}

}  // namespace
}  // namespace tpa::testing
