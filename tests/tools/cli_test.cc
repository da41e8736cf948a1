// The `tpa` tool from the outside: its exit codes, the query contract, show's
// output, check's report and warnings, and explain, run as a child process on
// the bundled example and on documents written for each test; then, inside,
// the document scan on random text and the typo suggestions.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "run_tool.h"
#include "testing/log_capture.h"
#include "tools/doc_scan.h"
#include "tools/json_escape.h"
#include "tools/lint.h"

namespace tpa::testing {
namespace {

using tools::Finding;
using tools::lintDocument;
using tools::nearestRuleKey;

const std::string kRules = "examples/rules.json";

// Usage errors name the help to read; check --strict fails on warnings with
// a status of its own, while a failed build keeps its own.
TEST(TpaCli, ExitCodesAndMessagesFollowTheContract) {
  const std::string failed = "tpa: build failed: -4 TPA_ERROR_JSON_PARSE_MISMATCH\n";
  const std::string throwing = doc("[{'include':['ok.test', 'face/']}]");
  const std::string fine = doc("[{'id':'1','include':['x.test']}]");
  const std::string dot = doc("[{'id':'1','include':['x.test.']}]");
  const std::string strict = "tpa: check --strict: 1 warning\n";
  TempFile file(throwing);
  const struct {
    std::string command, input;
    int code;
    std::string part;  // of standard output on success, else of standard error
  } cases[] = {
      // clang-format off
      {"", "", 64, "missing COMMAND"},
      {"frob", "", 64, "unknown command 'frob' (see 'tpa --help')\n"},
      {"--help", "", 0, "usage: tpa COMMAND RULES"}, {"query", "", 64, "query: missing RULES"},
      {"query - com.example.mail", "", 64, "APP and DEST come in pairs"},
      {"query -", "", 64, "cannot both come from standard input"},
      {"show - extra", "", 64, "show: takes RULES only"},
      {"explain -", "", 64, "explain: missing APP DEST"},
      {"explain --frob -", "", 64, "unknown option '--frob'"},
      {"query /nonexistent/rules.json", "", 66, "cannot read /nonexistent/rules.json"},
      {"show /", "", 66, "cannot read /: Is a directory"},
      {"query - a b", "[{}", 2, failed}, {"check -", "[{}", 2, failed},
      {"--version", "", 0, "tpa 0."}, {"help", "", 0, "usage: tpa COMMAND RULES"},
      {"help diff", "", 0, "usage: tpa diff [--format=text|json|github] OLD NEW [QUERIES]"},
      {"help frob", "", 64, "tpa: help: unknown command 'frob' (see 'tpa --help')\n"},
      {"help diff check", "", 64, "help: takes one COMMAND at most"},
      {"diff a", "", 64, "tpa: diff: takes OLD NEW [QUERIES] (see 'tpa diff --help')\n"},
      {"show", "", 64, "tpa: show: missing RULES (see 'tpa show --help')\n"},
      {"diff --format=xml a b", "", 64,
       "bad value in option '--format=xml' (expected text, json or github) (see 'tpa diff --help')"},
      {"explain --format=github - a b", "", 64, "(expected text or json)"},
      {"query --strict -", "", 64, "query: unknown option '--strict' (see 'tpa query --help')"},
      {"check --strict -", fine, 0, "warnings: 0\n"}, {"check -", dot, 0, "warnings: 1\n"},
      {"check --strict -", dot, 4, strict}, {"check --strict --format=github -", dot, 4, strict},
      {"check --strict -", throwing, 3, "value \"face/\" at <stdin>:1:"},
      {"check --strict -", dot.substr(0, dot.size() - 1), 2, "build failed: -4"},
      // clang-format on
      {"show -", throwing, 3, "value \"face/\" at <stdin>:1:"},
      {"check " + file.path(), "", 3, "value \"face/\" at " + file.path() + ":1:"},
  };
  for (const auto& c : cases) {
    const ToolResult r = runTool(words(c.command), c.input);
    EXPECT_EQ(r.exitCode, c.code) << c.command << "\n" << r.err;
    EXPECT_TRUE(has(c.code == 0 ? r.out : r.err, c.part)) << c.command << "\n" << r.out << r.err;
    EXPECT_EQ(r.err.empty(), c.code == 0) << c.command;
    // Of the failures, only a failed check writes anything (its report) on standard output.
    EXPECT_EQ(r.out.empty(), c.code != 0 && c.command.rfind("check", 0) != 0) << c.command;
  }
  EXPECT_EQ(runTool({"help", "check"}).out, runTool({"check", "--help"}).out);
}

// Every command that writes a report says so when standard output is full.
TEST(TpaCli, NamesAnUnwritableOutput) {
  TempFile rules(doc("[{'include':['x.test']}]")), list("x.test\n");
  const std::vector<std::vector<std::string>> commands = {
      {"query", rules.path(), "a", "b"}, {"show", rules.path()}, {"check", rules.path()},
      {"explain", rules.path(), "a", "b"}, {"diff", rules.path(), rules.path()},
      {"import", "domains", list.path()}, {"--version"}, {"help", "show"}};
  for (const auto& args : commands) {
    const ToolResult r = runTool(args, "", "/dev/full");
    EXPECT_EQ(r.exitCode, 74) << args[0] << "\n" << r.err;
    EXPECT_TRUE(has(r.err, "tpa: cannot write standard output: No space left on device\n"))
        << args[0] << "\n" << r.err;
  }
}

// Valid UTF-8 is kept, every byte outside it becomes \u00XX: the output is
// always valid UTF-8 and still tells the bytes apart.
TEST(JsonEscape, KeepsValidUtf8AndEscapesEveryOtherByte) {
  const char* cases[][2] = {
      {"plain", "\"plain\""},
      {"q\"b\\", "\"q\\\"b\\\\\""},
      {"\t\x01", "\"\\t\\u0001\""},
      {"caf\xc3\xa9", "\"caf\xc3\xa9\""},                  // 2 bytes
      {"\xe2\x82\xac\xf0\x9f\x98\x80", "\"\xe2\x82\xac\xf0\x9f\x98\x80\""},  // 3, 4
      {"caf\xe9", "\"caf\\u00e9\""},                          // Latin-1
      {"\xc3", "\"\\u00c3\""},                                 // cut short
      {"\xc0\xaf", "\"\\u00c0\\u00af\""},                     // overlong '/'
      {"\xed\xa0\x80", "\"\\u00ed\\u00a0\\u0080\""},          // a surrogate
      {"\xf4\x90\x80\x80", "\"\\u00f4\\u0090\\u0080\\u0080\""},  // above U+10FFFF
      {"\x80" "a", "\"\\u0080a\""},                               // stray continuation
      {"\x7f", "\"\x7f\""},
  };
  for (const auto& [text, json] : cases) {
    std::string out;
    tools::appendJsonString(out, text);
    EXPECT_EQ(out, json) << text;
  }
}

std::string repeated(const std::string& s, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += s;
  return out;
}

TEST(TpaQuery, AnswersPairsAndStandardInputLines) {
  const std::string mail = "com.example.mail\timap.example.com";
  const struct {
    std::string pairs, input, answers;
    int code;
  } cases[] = {
      {"com.example.mail ads.example.com x y", "", "exclude\t100\nexclude\t-1\n", 0},
      {"-- -a -b", "", "exclude\t-1\n", 0},                   // "--" ends the options
      {"", mail + "\r\n", "include\t100\n", 0},               // CR dropped
      {"", "\n\n" + mail + "\n\n", "include\t100\n", 0},      // blanks skipped
      {"", mail, "include\t100\n", 0},                        // no final newline
      {"", "x\ty\ttime.example.org\n", "exclude\t-1\n", 0},   // DEST keeps the TAB
      {"", "\timap.example.com\n", "exclude\t-1\n", 0},       // empty APP is an APP
      {"", mail + "\nno tab\nx\ty\n", "include\t100\n", 65},  // stops at a bad line
      // 68 kB: lines across the reader's 64 KiB blocks
      {"", repeated(mail + "\n", 2000), repeated("include\t100\n", 2000), 0},
  };
  for (const auto& c : cases) {
    const ToolResult r = runTool(words("query " + kRules + " " + c.pairs), c.input);
    EXPECT_EQ(r.exitCode, c.code) << c.pairs << c.input;
    EXPECT_EQ(r.out, c.answers) << c.pairs << c.input;
  }
}

TEST(TpaQuery, AnswersEachLineBeforeReadingTheNext) {
  int in[2], out[2];
  ASSERT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
  const pid_t pid = startTool({"query", kRules}, in[0], out[1], 2);
  close(in[0]);
  close(out[1]);
  alarm(60);  // a tool that held its answer back would wait here for more input
  ASSERT_EQ(write(in[1], "com.example.mail\timap.example.com\n", 34), 34);
  char answer[64] = {};
  EXPECT_GT(read(out[0], answer, sizeof answer - 1), 0);
  EXPECT_STREQ(answer, "include\t100\n");
  close(in[1]);
  close(out[0]);
  waitpid(pid, nullptr, 0);
  alarm(0);
}

// Positions, rule numbers and defaults as the parser made them; values
// escaped only where JSON needs it, and bytes outside UTF-8 as \u00XX.
TEST(TpaShow, PrintsRulesAsReadWithDefaultsAndEscapes) {
  const std::string document = "[{'id':'1'},{'match_apps':['a\\b', 'tab\there', 'line\nbreak', "
                               "'bell\x07', 'caf\xc3\xa9', 'del\x7f', 'raw\xff']}]";
  EXPECT_EQ(runTool({"show", "-"}, doc(document)).out,
            doc("{'position':1,'rule_number':0,'apps':['#LAMBDA-APP'],'include':['*'],"
                "'exclude':[''],'id':1}\n{'position':2,'rule_number':2,'apps':['a\\\\b',"
                "'tab\\there','line\\nbreak','bell\\u0007','caf\xc3\xa9','del\x7f','raw\\u00ff'],"
                "'include':['*'],'exclude':[''],'id':2147483647}\n"));
}

TEST(TpaCheck, ReportsTheBuildOfTheBundledRules) {
  const ToolResult r = runTool({"check", kRules});
  EXPECT_TRUE(std::regex_match(
      r.out, std::regex("document: examples/rules.json \\([0-9]+ bytes\\)\nresult: 0 TPA_ERROR_NONE\n"
                        "rules: 3\nautomaton states: apps [0-9]+, include [0-9]+, exclude [0-9]+\n"
                        "build time: [0-9]+\\.[0-9]{3} ms\nbuild memory: -?[0-9]+ bytes held, "
                        "peak RSS \\+-?[0-9]+ KiB\nwarnings: 0\n")))
      << r.out;
}

// Every warning, where it points and, where it makes a claim about decisions,
// a query ("APP DEST ANSWER") that shows the claim with the real library.
TEST(TpaCheck, WarnsOfEveryTrapWithLineAndColumn) {
  // clang-format off
  const char* cases[][4] = {
      // code, document, where, query proving the claim
      {"comma-in-value", "[\n{'id':'1',\n'include':'x,y'}]", "3:13", "a other.test include 1"},
      {"structural-in-string", "[{'include':['a{b']}]", "1:16", ""},
      {"backslash-quote", "[{'include':['a\\']}]", "1:16", ""},
      {"unterminated-string", "[{'include':['a']}]'", "1:20", ""},
      {"unbalanced", "[{'include':['a']}]}", "1:20", ""},
      {"stray-text", "[{'include':['x', true]}]", "1:19", ""},
      {"missing-comma", "[{'id':'1','match_apps':['a'] 'x'}]", "1:31", "x z include 1"},
      {"nested-object", "[{'x':{'include':['y']}}]", "1:7", ""},
      {"deep-object", "[[{'id':'1'}]]", "1:3", ""}, {"top-level-object", "{'id':'1'}", "1:1", ""},
      {"second-array", "[{'id':'1'}] [{'id':'2'}]", "1:14", ""},
      {"string-outside-object", "['a', {'id':'1'}]", "1:2", ""},
      {"duplicate-key", "[{'id':'1','include':['x'],'include':['y']}]", "1:29", "a y include 1"},
      {"unknown-key", "[{'inclde':['x']}]", "1:4", ""},
      {"empty-list-with-space", "[{'include': []}]", "1:13", "a x.test exclude -1"},
      {"unquoted-in-array", "[{'include': [x]}]", "1:13", "a x exclude -1"},
      {"unquoted-value", "[{'match_apps': a,'id':'1'}]", "1:16", "a x exclude -1"},
      {"empty-document", "", "1:1", "a x exclude -1"},
      {"empty-array-document", "[]", "1:1", "a x include 2147483647"},
      {"empty-apps-list", "[{'match_apps':[]}]", "1:16", "a x exclude -1"},
      {"empty-entry", "[{'include':['']}]", "1:15", "a x exclude -1"},
      {"blank-in-entry", "[{'include':['x .test']}]", "1:15", "a x.test exclude -1"},
      {"build-throws", "[{'include':['face/']}]", "1:15", ""},
      {"empty-include-list", "[{'include':[]}]", "1:13", "a x.test exclude -1"},
      {"network-never-matches", "[{'include':['128.0.0.0/1']}]", "1:15", "a 200.1.2.3 exclude -1"},
      {"ipv4-mapped", "[{'include':['::ffff:10.0.0.1']}]", "1:15", "a 10.0.0.1 exclude -1"},
      {"network-zero-prefix", "[{'include':['0.0.0.0/0']}]", "1:15", "a 1.2.3.4 exclude -1"},
      {"network-prefix-clamped", "[{'include':['10.0.0.0/40']}]", "1:15", "a 10.0.0.1 exclude -1"},
      {"not-a-destination", "[{'include':['https://x.test']}]", "1:15", "a x.test exclude -1"},
      {"upper-case", "[{'include':['X.test']}]", "1:15", "a x.test exclude -1"},
      {"trailing-dot", "[{'include':['x.test.']}]", "1:15", "a x.test exclude -1"},
      {"leading-dot", "[{'include':['.x.test']}]", "1:15", "a a.x.test exclude -1"},
      {"wildcard-misplaced", "[{'id':'1','include':['cdn.*']}]", "1:24", "a other.org include 1"},
      {"wildcard-no-dot", "[{'id':'1','include':['*x.test']}]", "1:24", "a badx.test include 1"},
      {"wildcard-shadowed", "[{'include':['*.b','a.b']}]", "1:15", "a xa.b exclude -1"},
      {"network-shadowed", "[{'include':['8.0.0.0/8','8.1.0.0/16']}]", "1:15", "a 8.2.3.4 exclude -1"},
      {"missing-id", "[{'match_apps':['a']}]", "1:2", "a x include 2147483647"},
      {"duplicate-id", "[{'id':'1'},{'id':'1'}]", "1:20", ""},
      {"id-atoi", "[{'id':'12abc'}]", "1:9", "a x include 12"},
      {"lambda-mixed", "[{'match_apps':['#LAMBDA-APP','a']}]", "1:18", "b x exclude -1"},
      {"app-in-several-rules", "[{'match_apps':['a'],'include':['x']},{'match_apps':['a']}]", "1:55", "a y exclude -1"},
      {"include-and-exclude", "[{'id':'1','include':['x'],'exclude':['x']}]", "1:40", "a x include 1"},
  };
  // clang-format on
  for (const auto& [code, document, lineColumn, claim] : cases) {
    TempFile file(doc(document));
    const std::string where = file.path() + ":" + lineColumn + ": warning: [" + code + "] ";
    EXPECT_TRUE(has(runTool({"check", file.path()}).out, where)) << where;
    const std::vector<std::string> q = words(claim);  // APP DEST DECISION VALUE
    if (q.empty()) continue;
    EXPECT_EQ(runTool({"query", file.path(), q[0], q[1]}).out, q[2] + "\t" + q[3] + "\n") << code;
  }
}

TEST(TpaExplain, NamesEachStepOfTheDecision) {
  const ToolResult r = runTool({"explain", kRules, "com.example.mail", "time.example.org",
                                "com.example.mail", "ads.example.com", "com.example.mail",
                                "10.20.1.5", "com.example.game", "::ffff:203.0.113.9"});
  const char* parts[] = {
      "application: key \"#com.example.mail$\" found whole",
      "precedence: neither list matched; falling back to rule number 0",
      "whole key: matched \"#time.example.org$01\", value 300",
      "deciding rule: the rule at position 3, id 300\n  decision: include\t300",
      "wildcard: the last 15 characters match \"#*.example.com$11\"",
      "prefix key \"#0000101000010100$11\" matched, value 100",
      "both matched; exclude is no shorter in either and longer in one: exclude",
      "\"#com.example.game$\" is no stored application key",
      "note: ::ffff:203.0.113.9 is an IPv4-mapped IPv6 address: IPv4 entries for 203.0.113.9",
  };
  for (const char* part : parts) EXPECT_TRUE(has(r.out, part)) << part;
}

TEST(DocScan, FindingsStayInsideRandomText) {
  LogCapture quiet;  // the build logs every unbalanced text
  const std::string alphabet = "{}[]\"\":,,ab id  \\\n";
  std::mt19937 random(20240611);
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (int n = random() % 60 + 1; n > 0; --n) text += alphabet[random() % alphabet.size()];
    for (const Finding& f : lintDocument(text, nullptr)) ASSERT_LE(f.offset, text.size()) << text;
  }
}

TEST(NearestRuleKey, SuggestsOnlyLikelyTypos) {
  const char* cases[][2] = {{"inclde", "include"}, {"Include", "include"}, {"exlude", "exclude"},
                            {"match-apps", "match_apps"}, {"ID", "id"}, {"ids", "id"}, {"x", ""},
                            {"apps", ""}, {"comment", ""}, {"", ""}};
  for (const auto& [key, meant] : cases) EXPECT_EQ(nearestRuleKey(key), meant) << key;
}

}  // namespace
}  // namespace tpa::testing
