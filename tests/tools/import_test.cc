// tpa import: each list format's lines taken or reported where they stand,
// ids and applications refused when they cannot mean what they say (run as a
// child process), and, in process, random AdBlock lists whose every name and
// fresh names under them get through the built document the decision the
// list means, or are covered by a reported line.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "run_tool.h"
#include "tools/importer.h"
#include "tpa/api/analyzer.h"

namespace tpa::testing {
namespace {

using tools::ImportOptions;
using tools::ImportOutcome;
using tools::Importer;
using tools::ListFormat;

struct Asked {
  std::string app, name, answer;
};

// Imports `list` with `options` and asks the document each question. `tpa
// check` may find only what the import writes on purpose: the id a second
// rule shares, and the "*TAIL" entries that keep a wildcard from being
// hidden (which check sees as a wildcard without a dot, and the hiding).
void expectAnswers(const std::string& options, const std::string& format, const std::string& list,
                   const std::vector<Asked>& asked) {
  TempFile file(list);
  const ToolResult imported = runTool(words("import " + options + " " + format + " " + file.path()));
  ASSERT_EQ(imported.exitCode, 0) << imported.err;
  TempFile rules(imported.out);
  const std::string report = runTool({"check", rules.path()}).out;
  // A "*TAIL" entry, without a dot after the '*'.
  const bool tails = std::regex_search(imported.out, std::regex(R"("\*[^.])"));
  for (std::size_t at = report.find("warning: ["); at != std::string::npos;
       at = report.find("warning: [", at + 1)) {
    const std::string code = report.substr(at + 10, report.find(']', at) - at - 10);
    EXPECT_TRUE((code == "duplicate-id" && has(imported.out, "},\n {")) ||
                ((code == "wildcard-shadowed" || code == "wildcard-no-dot") && tails))
        << imported.out << imported.err << report;
  }
  std::string queries, expected;
  for (const Asked& a : asked) {
    queries += a.app + "\t" + a.name + "\n";
    expected += a.answer + "\n";
  }
  EXPECT_EQ(runTool({"query", rules.path()}, queries).out, expected)
      << list << imported.out << imported.err;
}

TEST(TpaImport, KeepsTheMeaningOfAdblockLists) {
  const struct {
    std::string options, list;
    std::vector<Asked> asked;
  } cases[] = {
      // Only exceptions: nothing is listed, not "everything".
      {"--apps=com.kid", "@@||bank.example^\n",
       {{"com.kid", "anything.example", "exclude\t-1"}, {"com.kid", "bank.example", "exclude\t-1"}}},
      // An --exclude import decides every name, exceptions or not.
      {"--apps=com.kid --exclude", "||ads.example^\n@@||ok.example^\n",
       {{"com.kid", "random.example", "include\t1"}, {"com.kid", "x.ads.example", "exclude\t1"},
        {"com.kid", "ok.example", "include\t1"}}},
      // An exception loses only to an $important block.
      {"", "||ads.example^$important\n@@||ads.example^\n",
       {{"a", "ads.example", "include\t1"}, {"a", "x.ads.example", "include\t1"}}},
      // A name of the listed list under its own wildcard, across an
      // exception: names ending like the exception's name ("xb.a.test")
      // still get the outer wildcard's decision, the exception's name its own.
      {"", "||a.test^\n@@||b.a.test^\n||c.b.a.test^$important\n@@||ab.a.test^\n",
       {{"a", "xb.a.test", "include\t1"}, {"a", "w.xb.a.test", "include\t1"},
        {"a", "b.a.test", "exclude\t1"}, {"a", "ab.a.test", "exclude\t1"},
        {"a", "xab.a.test", "include\t1"}, {"a", "q.b.a.test", "exclude\t1"},
        {"a", "yc.b.a.test", "exclude\t1"}, {"a", "y.c.b.a.test", "include\t1"}}},
      {"--exclude --apps=p", "||a.test^\n@@||b.a.test^\n||c.b.a.test^$important\n",
       {{"p", "xb.a.test", "exclude\t1"}, {"p", "b.a.test", "include\t1"},
        {"p", "q.b.a.test", "include\t1"}, {"p", "c.b.a.test", "exclude\t1"}}},
  };
  for (const auto& c : cases) expectAnswers(c.options, "adblock", c.list, c.asked);
}

// A name the document cannot give its meaning is reported: here the list
// takes back the one name the document includes so as to include nothing.
// And an --exclude import without applications leaves its exceptions out.
TEST(TpaImport, ReportsTheNamesWhoseMeaningTheDocumentCannotKeep) {
  TempFile nothing("@@||nothing.tpa-import.invalid^\n");
  const ToolResult r = runTool({"import", "adblock", nothing.path()});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(has(r.err, nothing.path() + ":1: warning: [meaning-lost] "
                                          "\"nothing.tpa-import.invalid\" gets include; the "
                                          "list means exclude"))
      << r.err;
  EXPECT_TRUE(has(r.err, "meaning not kept for 1 names of the lists, for the names of 0 exception "
                         "entries and for some names under 0 wildcards"))
      << r.err;
  TempFile list("||a.test^\n@@||b.a.test^\n");
  const ToolResult dropped = runTool({"import", "--exclude", "adblock", list.path()});
  EXPECT_TRUE(has(dropped.err, list.path() + ":2: warning: [exception-needs-apps] the names under "
                                             "\"b.a.test\" get exclude; the list means include"))
      << dropped.err;
}

TEST(TpaImport, ReportsEveryLineNotTakenWhereItStands) {
  const struct {
    std::string format, list;
    std::vector<std::string> reports;  // "LINE: warning: [code]"
  } cases[] = {
      {"adblock",
       "||a.test^$third-party\n||b.test^|\n||*.c.test^\n/ads[0-9]/\nd.test##.banner\n"
       "0.0.0.0 e.test\nf.test\n@@||g.test^$important\n",
       {"1: warning: [adblock-option] option $third-party", "2: warning: [adblock-not-domain]",
        "3: warning: [adblock-wildcard]", "4: warning: [adblock-regex]",
        "5: warning: [adblock-cosmetic]", "6: warning: [adblock-hosts-line]",
        "7: warning: [adblock-bare-name]", "8: warning: [adblock-option] option $important"}},
      {"hosts", "only-a-name.test\nfoo.example bar.example\n0.0.0.0\n0.0.0.0 a,b.test *.w.test\n",
       {"1: warning: [hosts-no-address]", "2: warning: [hosts-no-address]",
        "3: warning: [hosts-no-name]", "4: warning: [unreadable] \"a,b.test\": a comma",
        "4: warning: [wildcard-in-hosts]"}},
      {"domains", "a.*.test\n10.1.2.3\nx..test\n",
       {"1: warning: [wildcard-misplaced]", "2: warning: [unreadable] \"10.1.2.3\": an address",
        "3: warning: [unreadable] \"x..test\": empty label"}},
  };
  for (const auto& c : cases) {
    TempFile list(c.list + "||ok.test^\nok.test\n0.0.0.0 ok.test\n");
    const ToolResult r = runTool({"import", c.format, list.path()});
    for (const std::string& report : c.reports) {
      EXPECT_TRUE(has(r.err, list.path() + ":" + report)) << report << "\n" << r.err;
    }
  }
  const ToolResult piped = runTool({"import", "domains", "-"}, "a.test\nb\"c.test\n");
  EXPECT_TRUE(has(piped.err, "<stdin>:2: warning: [unreadable]")) << piped.err;
}

TEST(TpaImport, WritesNamesAsTheDocumentMeansThem) {
  const struct {
    std::string format, list, document;
  } cases[] = {
      {"domains", "\xEF\xBB\xBF" "first.test\n*.wild.example\nB\xC3\xBC" "cher.Example.\n",
       "[{'id': '1',\n  'include': [\n    'first.test',\n    '*.wild.example',\n"
       "    'xn--bcher-kva.example']}]\n"},
      {"adblock", "\xEF\xBB\xBF||first.test^\r\n||fa\xC3\x9F.de^\n",
       "[{'id': '1',\n  'include': [\n    'first.test',\n    '*.first.test',\n"
       "    'xn--fa-hia.de',\n    '*.xn--fa-hia.de']}]\n"},
      {"hosts", "# c\n127.0.0.1 localhost\n0.0.0.0 A.Test b.test # x\n::1 a.test\n",
       "[{'id': '1',\n  'include': [\n    'a.test',\n    'b.test']}]\n"},
  };
  for (const auto& c : cases) {
    TempFile list(c.list);
    const ToolResult r = runTool({"import", c.format, list.path()});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, doc(c.document)) << c.format << "\n" << r.err;
    EXPECT_FALSE(has(r.err, "warning")) << r.err;
  }
}

TEST(TpaImport, RefusesIdsAndApplicationsThatCannotMeanWhatTheySay) {
  const struct {
    const char* option;
    const char* why;
  } cases[] = {
      {"--id=-1", "-1 is the value of a query no rule decided"},
      {"--id=0", "\"0\" is not read back as written"},
      {"--id=007", "\"007\" is not read back as written"},
      {"--id=3x", "not read back"},
      {"--id=2147483647", "2147483647 is that of a rule without one"},
      {"--id=99999999999", "the ids end at 2147483646"},
      {"--apps=", "--apps= names no application"},
      {"--apps=a,,b", "--apps has an empty application name"},
      {"--apps=#LAMBDA-APP", "cannot be written as it is"},
      {"--apps=a b", "cannot be written as it is"},
  };
  TempFile list("a.test\n");
  for (const auto& c : cases) {
    const ToolResult r = runTool({"import", c.option, "domains", list.path()});
    EXPECT_EQ(r.exitCode, 64) << c.option;
    EXPECT_TRUE(has(r.err, c.why) && has(r.err, "Run 'tpa import --help' for usage."))
        << c.option << r.err;
  }
  EXPECT_EQ(runTool({"import", "--id=2147483646", "domains", list.path()}).exitCode, 0);
}

TEST(TpaImport, WritesWarningsAsJsonLinesAndAnnotations) {
  TempFile list("||a.test^\n||b.test^$popup\n");
  const ToolResult json = runTool({"import", "--format=json", "adblock", list.path()});
  EXPECT_TRUE(has(json.err, "{\"file\":\"" + list.path() +
                                "\",\"line\":2,\"code\":\"adblock-option\",\"message\":\"option "
                                "$popup is not representable"))
      << json.err;
  EXPECT_TRUE(has(json.err, "{\"summary\":{\"include_entries\":2,\"exclude_entries\":0,"))
      << json.err;
  const ToolResult github = runTool({"import", "--format=github", "adblock", list.path()});
  EXPECT_TRUE(has(github.err, "::warning file=" + list.path() +
                                  ",line=2,col=1::[adblock-option] option $popup"))
      << github.err;
}

// ---- The model: random AdBlock lists over a small universe of names -------

// A rule of a generated list: its name, and 0 block, 1 exception, 2 important
// (AdBlock: the name and the names under it), 3 the name alone, 4 the names
// under it (domain lists: "NAME", "*.NAME").
struct Generated {
  std::string name;
  int kind;
};

bool isUnder(const std::string& name, const std::string& above) {
  return name.size() > above.size() &&
         name.compare(name.size() - above.size() - 1, std::string::npos, "." + above) == 0;
}

// The list's meaning by brute force: an $important block covering the name
// lists it; otherwise a block does unless an exception covers it too.
bool modelListed(const std::vector<Generated>& rules, const std::string& name) {
  bool block = false, exception = false, important = false;
  for (const Generated& r : rules) {
    const bool covers = (r.kind != 4 && name == r.name) || (r.kind != 3 && isUnder(name, r.name));
    if (!covers) continue;
    block = block || r.kind == 0 || r.kind >= 3;
    exception = exception || r.kind == 1;
    important = important || r.kind == 2;
  }
  return important || (block && !exception);
}

// Every name of one to three labels under "t".
std::vector<std::string> universe(const std::vector<const char*>& labels) {
  std::vector<std::string> names;
  for (const char* one : labels) {
    names.push_back(std::string(one) + ".t");
    for (const char* two : labels) {
      names.push_back(std::string(two) + "." + one + ".t");
      for (const char* three : labels) names.push_back(std::string(three) + "." + two + "." + one + ".t");
    }
  }
  return names;
}

// Whether a reported line accounts for `name` deciding otherwise.
bool covered(const ImportOutcome& outcome, const std::string& name) {
  for (const tools::ImportWarning& w : outcome.warnings) {
    if (w.below ? isUnder(name, w.name) : w.name == name) return true;
  }
  return false;
}

// Imports one generated list and checks every name of the universe and a
// fresh name under each. Returns the number of decisions only a report covers.
std::size_t checkOneList(unsigned seed, bool exclude, bool withApps, bool domains) {
  static const std::vector<std::string> names = universe({"a", "b", "c", "ab", "ba"});
  // Rules on fewer names nest more often: labels a, b and ab only.
  static const std::vector<std::string> ruled = universe({"a", "b", "ab"});
  std::mt19937 rng(seed);
  std::vector<Generated> rules;
  std::string text;
  for (int i = 0, n = 1 + static_cast<int>(rng() % 12); i < n; ++i) {
    const Generated g{ruled[rng() % ruled.size()],
                      domains ? 3 + static_cast<int>(rng() % 2) : static_cast<int>(rng() % 5) % 3};
    rules.push_back(g);
    if (domains) {
      text += (g.kind == 4 ? "*." : "") + g.name + "\n";
    } else {
      text += (g.kind == 1 ? "@@||" : "||") + g.name + (g.kind == 2 ? "^$important\n" : "^\n");
    }
  }
  ImportOptions options;
  options.format = domains ? ListFormat::kDomains : ListFormat::kAdblock;
  options.excludeNames = exclude;
  if (withApps) options.apps = {"app"};
  Importer importer(options);
  std::vector<tools::LineNote> notes;
  std::istringstream lines(text);
  std::uint32_t number = 0;
  for (std::string line; std::getline(lines, line);) importer.readLine(line, {0, ++number}, notes);
  EXPECT_TRUE(notes.empty());
  const ImportOutcome outcome = importer.finish();
  EXPECT_TRUE(outcome.built) << text;
  // Only an --exclude import without applications has to leave names out.
  for (const tools::ImportWarning& w : outcome.warnings) {
    EXPECT_EQ(w.note.code, "exception-needs-apps") << w.note.message << "\n" << text;
  }
  api::TarnPatternAnalyzer analyzer;
  EXPECT_EQ(analyzer.build(outcome.document, false), 0) << outcome.document;
  std::size_t excused = 0;
  for (const std::string& base : names) {
    for (const std::string& name : {base, "fresh." + base, "xa." + base}) {
      int value = 0;
      const bool include = analyzer.query("app", name, value) == 1;
      const bool listed = modelListed(rules, name);
      if (include == (listed != exclude)) continue;
      ++excused;
      EXPECT_TRUE(covered(outcome, name))
          << "seed " << seed << ": " << name << " should be " << (listed ? "listed" : "unlisted")
          << "\n" << text << outcome.document;
    }
  }
  return excused;
}

// Fixed seeds in CI; TPA_IMPORT_SEED=N runs 2000 lists from seed N instead.
TEST(TpaImportModel, EveryDecisionIsTheListsOrReported) {
  const char* fresh = std::getenv("TPA_IMPORT_SEED");
  const unsigned first = fresh ? static_cast<unsigned>(std::strtoul(fresh, nullptr, 10)) : 1;
  const unsigned count = fresh ? 2000 : 300;
  std::size_t excused = 0, decided = 0;
  for (unsigned seed = first; seed < first + count; ++seed) {
    excused += checkOneList(seed, seed % 2 == 0, seed % 3 != 0, seed % 5 == 0);
    decided += 3 * universe({"a", "b", "c", "ab", "ba"}).size();
    if (::testing::Test::HasFailure()) break;
  }
  // The reports are the exception: nearly every decision is the list's own.
  EXPECT_LT(excused * 20, decided) << excused << " of " << decided;
  RecordProperty("excused", static_cast<int>(excused));
}

}  // namespace
}  // namespace tpa::testing
