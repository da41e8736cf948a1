// tpa diff and the machine-readable formats, run as a child process: each
// kind of change shows up in diff. tpa import has its own import_test.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace tpa::testing
