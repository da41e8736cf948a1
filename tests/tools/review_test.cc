// tpa diff, tpa import and the machine-readable formats, run as a child
// process: each kind of change shows up in diff, each list format imports,
// and imported lists round-trip: every name they keep gets the decision the
// list meant, checked on generated lists of names that are suffixes of each
// other.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "run_tool.h"

namespace tpa::testing {
namespace {

TEST(TpaDiff, ReportsEachKindOfChangeWithReasonsAndExitStatus) {
  const std::string base = "[{'match_apps':['m'],'include':['*.x.test','10.0.0.0/8'],'id':'1'}]";
  const struct {
    std::string before, after, queries, options;
    int code;
    std::vector<std::string> parts;  // of standard output (or error, for codes above 1)
  } cases[] = {
      {base, base, "", "", 0, {"changed: 0 of 10 decisions"}},
      {base, "[{'match_apps':['m'],'include':['*.x.test','10.0.0.0/8'],'id':'2'}]", "", "", 1,
       {"\"m\" \"tpa-probe.x.test\": include 1 -> include 2; old: rule number 1: include list, "
        "wildcard \"#*.x.test$11\" (only include matched); new: ", "(id changed 3)"}},
      {base, "[{'match_apps':['m'],'include':['*.x.test','10.0.0.0/9'],'id':'1'}]", "", "", 1,
       {"\"m\" \"10.255.255.255\": include 1 -> exclude -1; old: rule number 1: include list, "
        "network prefix of 8 bits", "new: rule number 1, then rule number 0: no list matched, the "
        "default", "(include to exclude 2)"}},
      {base,
       "[{'match_apps':['m'],'include':['*.x.test','10.0.0.0/8'],'exclude':['a.x.test'],"
       "'id':'1'},{'exclude':['*.x.test'],'include':['y.test']}]", "", "", 1,
       {"\"m\" \"a.x.test\": include 1 -> exclude 1; old: rule number 1: include list, wildcard",
        "\"tpa.unknown.app\" \"y.test\": exclude -1 -> include 2147483647; old: unknown application",
        "(include to exclude 1, exclude to include 2, id changed 2)"}},
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
       {"::warning file=NEW,line=3,col=2::\"m\" \"b.x.test\": include 1 -> include 5;"}},
      {base, base, "no tab\n", "", 65, {"line 1: no TAB between APP and DEST"}},
      {base, base, "", "--format=xml", 64, {"bad value in option '--format=xml'"}},
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

TEST(TpaImport, ReadsEachListFormat) {
  const struct {
    std::string format, options, list, document, report;
  } cases[] = {
      {"hosts", "",
       "# comment\n127.0.0.1 localhost\n0.0.0.0 Ads.Example.COM. t.test # x\n"
       "0.0.0.0 ads.example.com a,b.test 1.2.3.4\n",
       "[{'id': '1',\n  'include': [\n    'ads.example.com',\n    't.test']}]\n",
       "left out \"a,b.test\": a comma ends a value in the reader"},
      {"domains", "--exclude --id=9 --apps=p,q", "! comment\nx.test\n\ny.test\n",
       "[{'id': '9',\n  'match_apps': ['p','q'],\n  'exclude': [\n    'x.test',\n"
       "    'y.test']}]\n",
       "0 include and 2 exclude entries"},
      {"adblock", "",
       "[Adblock Plus 2.0]\n||e.test^\n@@||g.e.test^\n||a.g.e.test^\n||s.e.test^\n"
       "/banner/*\n||p.test/x^\n||q.test^$third-party\n",
       "[{'id': '1',\n  'include': [\n    'e.test',\n    '*.e.test'],\n  'exclude': [\n"
       "    'g.e.test',\n    '*.g.e.test']}]\n",
       "left out 0 unreadable, 1 shadowing, 0 in both lists; dropped 0 duplicates, 1 covered, 0 "
       "local names; skipped 3 other rules"},
  };
  for (const auto& c : cases) {
    TempFile list(c.list);
    const ToolResult r = runTool(words("import " + c.options + " " + c.format + " " + list.path()));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, doc(c.document)) << c.format;
    EXPECT_TRUE(has(r.err, c.report)) << r.err;
  }
}

// Generated AdBlock lists of "||NAME^" rules whose names are suffixes of each
// other, imported (odd rounds into the exclude list, @@ names into the other)
// and asked back: a name and a fresh name under it get the decision of the
// nearest listed name (@@ wins a tie), unless the import left that one out.
TEST(TpaImport, GeneratedListsRoundTripThroughCheckAndQuery) {
  const char* labels[] = {"a", "b", "aa", "ba", "ab"};
  for (unsigned round = 1; round <= 20; ++round) {
    std::mt19937 rng(round);
    std::map<std::string, bool> listed;  // name: listed with @@
    std::string text;
    for (int i = 0; i < 30; ++i) {
      std::string name = "t";
      for (int depth = 1 + rng() % 4; depth > 0; --depth) name = labels[rng() % 5] + ("." + name);
      const bool exception = rng() % 3 == 0;
      listed[name] = listed[name] || exception;
      text += (exception ? "@@||" : "||") + name + "^\n";
    }
    const bool flipped = round % 2 == 1;
    TempFile list(text);
    const ToolResult imported = runTool({"import", "--apps=app", "--id=4",
                                         flipped ? "--exclude" : "--include", "adblock", list.path()});
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    TempFile rules(imported.out);
    const std::string report = runTool({"check", rules.path()}).out;
    EXPECT_TRUE(has(report, "result: 0 TPA_ERROR_NONE\n") && has(report, "warnings: 0\n"))
        << imported.out << report;
    std::string queries, expected;
    for (const auto& [name, unused] : listed) {
      for (const std::string& q : {name, "fresh." + name}) {
        std::string nearest = q;
        while (listed.count(nearest) == 0) nearest.erase(0, nearest.find('.') + 1);
        if (has(imported.err, "left out \"" + nearest + "\"")) continue;
        queries += "app\t" + q + "\n";
        expected += std::string(listed[nearest] != flipped ? "exclude" : "include") + "\t4\n";
      }
    }
    EXPECT_EQ(runTool({"query", rules.path()}, queries).out, expected) << imported.out;
  }
}

}  // namespace
}  // namespace tpa::testing
