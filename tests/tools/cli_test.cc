// The `tpa` tool from the outside: its exit codes, the query contract, show's
// output, check's report and warnings, and explain, run as a child process on
// the bundled examples and on documents written for each test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "api/analyzer.h"
#include "mapper/map.h"
#include "run_tool.h"

extern char** environ;

namespace tpa::testing {
namespace {

const std::string kRules = "examples/rules.json";
const std::string kQueries = "examples/queries.tsv";

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The library's own answers, formatted as the tool's contract says.
std::string libraryAnswers(const std::string& document,
                           const std::vector<std::pair<std::string, std::string>>& queries) {
  api::TarnPatternAnalyzer analyzer;
  if (analyzer.build(document, false) != 0) return "build failed";
  std::string answers;
  for (const auto& [app, destination] : queries) {
    int value = -1;
    const int decision = analyzer.query(app, destination, value);
    answers += (decision == 1 ? "include\t" : "exclude\t") + std::to_string(value) + "\n";
  }
  return answers;
}

std::vector<std::pair<std::string, std::string>> parseTsv(const std::string& tsv) {
  std::vector<std::pair<std::string, std::string>> queries;
  for (const std::string& line : linesOf(tsv)) {
    const std::size_t tab = line.find('\t');
    queries.emplace_back(line.substr(0, tab), line.substr(tab + 1));
  }
  return queries;
}

// ---------------------------------------------------------------------------
// Exit codes

TEST(TpaCli, ExitCodesFollowTheContract) {
  TempFile unbalanced("[{\"id\":\"1\"}");
  TempFile throwing("[{\"include\":[\"ok.test\", \"face/\"]}]");
  const std::string failed = "tpa: build failed: -4 TPA_ERROR_JSON_PARSE_MISMATCH\n";
  const struct {
    std::vector<std::string> args;
    std::string input;
    int code;
    std::string errorPart;
  } cases[] = {
      {{}, "", 64, "missing COMMAND"},
      {{"frob"}, "", 64, "unknown command 'frob'"},
      {{"--help"}, "", 0, ""},
      {{"explain", "-h"}, "", 0, ""},
      {{"query"}, "", 64, "query: missing RULES"},
      {{"query", kRules, "com.example.mail"}, "", 64, "APP and DEST come in pairs"},
      {{"query", "-"}, "", 64, "cannot both come from standard input"},
      {{"show", kRules, "extra"}, "", 64, "show: takes RULES only"},
      {{"explain", kRules}, "", 64, "explain: missing APP DEST"},
      {{"check", "--frob", kRules}, "", 64, "unknown option '--frob'"},
      {{"check", "/nonexistent/rules.json"}, "", 66, "cannot read /nonexistent/rules.json"},
      {{"show", "/"}, "", 66, "cannot read /: Is a directory"},
      {{"query", unbalanced.path(), "a", "b"}, "", 2, failed},
      {{"show", unbalanced.path()}, "", 2, failed},
      {{"check", unbalanced.path()}, "", 2, failed},
      {{"explain", unbalanced.path(), "a", "b"}, "", 2, failed},
      {{"query", throwing.path(), "a", "b"}, "", 3, "tpa: build threw: "},
      {{"show", "-"}, "[{\"include\":[\"face/\"]}]", 3, "include value \"face/\" at <stdin>:1:"},
      {{"check", throwing.path()}, "", 3, "include value \"face/\" at " + throwing.path() + ":1:"},
      {{"explain", throwing.path(), "a", "b"}, "", 3, "tpa: build threw: "},
      {{"query", kRules}, "a\tb\nno tab here\n", 65, "tpa: stdin line 2: no TAB"},
      {{"query", kRules, "a", "b"}, "", 0, ""},
      {{"query", kRules, "--", "-a", "-b"}, "", 0, ""},
      {{"show", "-"}, "[]", 0, ""},
  };
  for (const auto& c : cases) {
    const ToolResult r = runTool(c.args, c.input);
    std::string label;
    for (const std::string& a : c.args) label += a + " ";
    EXPECT_EQ(r.exitCode, c.code) << label << "\n" << r.err;
    EXPECT_TRUE(contains(r.err, c.errorPart)) << label << "\n" << r.err;
  }
}

TEST(TpaCli, HelpGoesToStandardOutput) {
  const ToolResult r = runTool({"--help"});
  EXPECT_TRUE(contains(r.out, "usage: tpa COMMAND RULES"));
  EXPECT_TRUE(contains(r.out, "64  usage error"));
  EXPECT_TRUE(contains(runTool({"query", "--help"}).out, "include<TAB>VALUE"));
  EXPECT_EQ(r.err, "");
}

TEST(TpaCli, BuildFailureWritesNothingOnStandardOutput) {
  TempFile unbalanced("[{}");
  const ToolResult r = runTool({"query", unbalanced.path(), "a", "b"});
  EXPECT_EQ(r.out, "");
}

// ---------------------------------------------------------------------------
// The query contract

TEST(TpaQuery, AnswersPairsFromTheCommandLine) {
  const ToolResult r =
      runTool({"query", kRules, "com.example.mail", "imap.example.com", "com.example.mail",
               "ads.example.com", "com.example.game", "unlisted.example"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, "include\t100\nexclude\t100\nexclude\t-1\n");
}

TEST(TpaQuery, AnswersStandardInputExactlyAsTheLibraryDoes) {
  const std::string tsv = readFile(kQueries);
  ASSERT_FALSE(tsv.empty());
  const ToolResult r = runTool({"query", kRules}, tsv);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, libraryAnswers(readFile(kRules), parseTsv(tsv)));
}

TEST(TpaQuery, ReadsLinesAsDocumented) {
  const struct {
    std::string input;
    std::string answers;
  } cases[] = {
      {"com.example.mail\timap.example.com\r\n", "include\t100\n"},      // CR dropped
      {"\n\ncom.example.mail\timap.example.com\n\n", "include\t100\n"},  // blanks skipped
      {"com.example.mail\timap.example.com", "include\t100\n"},          // no final newline
      {"com.example.mail\timap.example.com\tx\n", "exclude\t-1\n"},      // DEST keeps the TAB
      {"\timap.example.com\n", "exclude\t-1\n"},                         // empty APP is an APP
      {"", ""},
  };
  for (const auto& c : cases) {
    const ToolResult r = runTool({"query", kRules}, c.input);
    EXPECT_EQ(r.exitCode, 0) << c.input;
    EXPECT_EQ(r.out, c.answers) << c.input;
  }
}

TEST(TpaQuery, BadLineStopsAfterTheAnswersBeforeIt) {
  const ToolResult r =
      runTool({"query", kRules}, "com.example.mail\timap.example.com\nbad\nx\ty\n");
  EXPECT_EQ(r.exitCode, 65);
  EXPECT_EQ(r.out, "include\t100\n");
}

TEST(TpaQuery, StreamsAMillionQueriesThroughAPipeInBoundedMemory) {
  const std::string block =
      "com.example.mail\timap.example.com\ncom.example.game\t203.0.113.9\n"
      "com.example.browser\t2001:db8:1:2::5\ncom.example.game\tnowhere.test\n";
  const std::string answers = "include\t100\nexclude\t300\ninclude\t200\nexclude\t-1\n";
  const ToolResult r = runTool({"query", kRules}, block, 250000);
  ASSERT_EQ(r.exitCode, 0);
  ASSERT_EQ(r.out.size(), 250000 * answers.size());
  EXPECT_EQ(r.out.substr(0, answers.size()), answers);
  EXPECT_EQ(r.out.substr(r.out.size() - answers.size()), answers);
  // The input is 30 MB; a streaming tool holds a small fraction of it.
  EXPECT_LT(r.maxRssKiB, 16 * 1024);
}

// Spawns `tpa query RULES` with pipes on both ends, for a conversation.
struct Conversation {
  pid_t pid = -1;
  int toTool = -1;
  int fromTool = -1;
};

Conversation startConversation() {
  Conversation c;
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return c;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  std::string tool = toolPath(), command = "query", rules = kRules;
  char* argv[] = {tool.data(), command.data(), rules.data(), nullptr};
  posix_spawn(&c.pid, tool.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  c.toTool = in[1];
  c.fromTool = out[0];
  return c;
}

// Reads one line, waiting at most a generous while so that a tool that holds
// its answer back fails the test instead of hanging it.
std::string readLine(int fd) {
  std::string line;
  char c;
  while (line.empty() || line.back() != '\n') {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 20000) != 1 || read(fd, &c, 1) != 1) break;
    line += c;
  }
  return line;
}

TEST(TpaQuery, AnswersEachLineBeforeWaitingForTheNext) {
  Conversation c = startConversation();
  ASSERT_GT(c.pid, 0);
  const std::string first = "com.example.mail\timap.example.com\n";
  ASSERT_EQ(write(c.toTool, first.data(), first.size()), static_cast<ssize_t>(first.size()));
  EXPECT_EQ(readLine(c.fromTool), "include\t100\n");
  const std::string second = "com.example.game\tad.doubleclick.test\n";
  ASSERT_EQ(write(c.toTool, second.data(), second.size()), static_cast<ssize_t>(second.size()));
  EXPECT_EQ(readLine(c.fromTool), "exclude\t300\n");
  close(c.toTool);
  int status = 0;
  waitpid(c.pid, &status, 0);
  close(c.fromTool);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---------------------------------------------------------------------------
// show

TEST(TpaShow, PrintsTheBundledRulesAsRead) {
  const ToolResult r = runTool({"show", kRules});
  EXPECT_EQ(r.exitCode, 0);
  const std::vector<std::string> lines = linesOf(r.out);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0],
            "{\"position\":1,\"rule_number\":1,\"apps\":[\"com.example.mail\","
            "\"com.example.calendar\"],\"include\":[\"*.example.com\",\"mail.example.net\","
            "\"010.020.000.000/16\"],\"exclude\":[\"ads.example.com\",\"tracker.example.net\","
            "\"010.020.099.000/24\"],\"id\":100}");
  EXPECT_EQ(lines[2],
            "{\"position\":3,\"rule_number\":0,\"apps\":[\"#LAMBDA-APP\"],\"include\":"
            "[\"time.example.org\",\"dns.example.org\"],\"exclude\":[\"*.doubleclick.test\","
            "\"203.000.113.000/24\"],\"id\":300}");
}

TEST(TpaShow, ShowsDefaultsRuleNumbersAndNormalisedAddresses) {
  const struct {
    std::string document;
    std::vector<std::string> lines;
  } cases[] = {
      {"[]",
       {"{\"position\":1,\"rule_number\":0,\"apps\":[\"#LAMBDA-APP\"],\"include\":[\"*\"],"
        "\"exclude\":[\"\"],\"id\":2147483647}"}},
      {"", {}},
      {"[{\"match_apps\":[\"#LAMBDA-APP\",\"a\"],\"include\":[],\"id\": 7}]",
       {"{\"position\":1,\"rule_number\":1,\"apps\":[\"#LAMBDA-APP\",\"a\"],\"include\":[\"\"],"
        "\"exclude\":[\"\"],\"id\":7}"}},
      {"[{\"id\":\"1\"},{\"match_apps\":[\"a\"],\"exclude\":[\"2001:db8::/32\",\"10.1.2.3\"]}]",
       {"{\"position\":1,\"rule_number\":0,\"apps\":[\"#LAMBDA-APP\"],\"include\":[\"*\"],"
        "\"exclude\":[\"\"],\"id\":1}",
        "{\"position\":2,\"rule_number\":2,\"apps\":[\"a\"],\"include\":[\"*\"],\"exclude\":"
        "[\"00100000000000010000110110111000\",\"010.001.002.003\"],\"id\":2147483647}"}},
      {"[{\"id\":\"1\"}][{\"id\":\"2\"}]",
       {"{\"position\":1,\"rule_number\":0,\"apps\":[\"#LAMBDA-APP\"],\"include\":[\"*\"],"
        "\"exclude\":[\"\"],\"id\":1}",
        "{\"position\":2,\"rule_number\":0,\"apps\":[\"#LAMBDA-APP\"],\"include\":[\"*\"],"
        "\"exclude\":[\"\"],\"id\":1}",
        "{\"position\":3,\"rule_number\":0,\"apps\":[\"#LAMBDA-APP\"],\"include\":[\"*\"],"
        "\"exclude\":[\"\"],\"id\":2}"}},
  };
  for (const auto& c : cases) {
    const ToolResult r = runTool({"show", "-"}, c.document);
    EXPECT_EQ(r.exitCode, 0) << c.document;
    EXPECT_EQ(linesOf(r.out), c.lines) << c.document;
  }
}

TEST(TpaShow, EscapesBackslashesAndControlBytesAndCopiesTheRest) {
  const std::string document =
      std::string("[{\"match_apps\":[\"a\\b\", \"tab\there\", \"line\nbreak\", ") +
      "\"bell\x07\", \"caf\xc3\xa9\", \"del\x7f\"], \"id\":\"1\"}]";
  const ToolResult r = runTool({"show", "-"}, document);
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out,
            std::string("{\"position\":1,\"rule_number\":1,\"apps\":[\"a\\\\b\",\"tab\\there\",") +
                "\"line\\nbreak\",\"bell\\u0007\",\"caf\xc3\xa9\",\"del\x7f\"],\"include\":" +
                "[\"*\"],\"exclude\":[\"\"],\"id\":1}\n");
}

// ---------------------------------------------------------------------------
// check

TEST(TpaCheck, ReportsTheBuildOfTheBundledRules) {
  const ToolResult r = runTool({"check", kRules});
  EXPECT_EQ(r.exitCode, 0);
  api::TarnPatternAnalyzer analyzer;
  ASSERT_EQ(analyzer.build(readFile(kRules), false), 0);
  int apps = 0, include = 0, exclude = 0;
  ASSERT_EQ(analyzer.getMap()->appsMachine()->size(apps), 0);
  ASSERT_EQ(analyzer.getMap()->includeMachine()->size(include), 0);
  ASSERT_EQ(analyzer.getMap()->excludeMachine()->size(exclude), 0);
  const std::vector<std::string> lines = linesOf(r.out);
  ASSERT_EQ(lines.size(), 7u) << r.out;
  EXPECT_EQ(lines[1], "result: 0 TPA_ERROR_NONE");
  EXPECT_EQ(lines[2], "rules: 3");
  EXPECT_EQ(lines[3], "automaton states: apps " + std::to_string(apps) + ", include " +
                          std::to_string(include) + ", exclude " + std::to_string(exclude));
  EXPECT_TRUE(std::regex_match(lines[4], std::regex("build time: [0-9]+\\.[0-9]{3} ms")));
  EXPECT_TRUE(std::regex_match(
      lines[5], std::regex("build memory: -?[0-9]+ bytes held, peak RSS \\+-?[0-9]+ KiB")));
  EXPECT_EQ(lines[6], "warnings: 0");
}

TEST(TpaCheck, ReportsTheFailureCodeAndStillLints) {
  TempFile unbalanced("[{\"match_apps\":[\"a\"],\"id\":\"1\"}");
  const ToolResult r = runTool({"check", unbalanced.path()});
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_TRUE(contains(r.out, "result: -4 TPA_ERROR_JSON_PARSE_MISMATCH\n"));
  EXPECT_TRUE(contains(r.out, unbalanced.path() + ":1:1: warning: [unbalanced] '[' never closed"));
}

// One warning: a document, where the warning points and, where it makes a
// claim about decisions, a query that shows the claim with the real library.
struct LintCase {
  const char* code;
  std::string document;
  int line;
  int column;
  std::vector<std::string> proof;  // APP, DEST, expected answer
};

std::ostream& operator<<(std::ostream& os, const LintCase& c) { return os << c.code; }

class TpaLint : public ::testing::TestWithParam<LintCase> {};

TEST_P(TpaLint, WarnsWithLineAndColumn) {
  const LintCase& c = GetParam();
  TempFile document(c.document);
  const ToolResult r = runTool({"check", document.path()});
  const std::string where = document.path() + ":" + std::to_string(c.line) + ":" +
                            std::to_string(c.column) + ": warning: [" + c.code + "] ";
  EXPECT_TRUE(contains(r.out, where)) << where << "\n" << r.out;
  if (c.proof.empty()) return;
  const ToolResult answer = runTool({"query", document.path(), c.proof[0], c.proof[1]});
  EXPECT_EQ(answer.out, c.proof[2] + "\n") << c.proof[0] << " " << c.proof[1];
}

const std::string kApp = "[{\"match_apps\":[\"a\"],\"id\":\"1\",";

INSTANTIATE_TEST_SUITE_P(
    EveryWarning, TpaLint,
    ::testing::Values(
        LintCase{"comma-in-value",
                 "[\n{\"match_apps\":[\"a\"],\n \"include\":\"x,y\", \"id\":\"1\"}]",
                 3,
                 14,
                 {"a", "other.test", "include\t1"}},
        LintCase{"structural-in-string", kApp + "\"include\":[\"a{b\"]}]", 1, 44, {}},
        LintCase{"backslash-quote", kApp + "\"include\":[\"a\\\"]}]", 1, 44, {}},
        LintCase{"unterminated-string", kApp + "\"include\":[\"a\"]}]\"", 1, 48, {}},
        LintCase{"unbalanced", kApp + "\"include\":[\"a\"]}]}", 1, 48, {}},
        LintCase{"stray-text", kApp + "\"include\":[\"x\", true]}]", 1, 47, {}},
        LintCase{"missing-comma",
                 "[{\"match_apps\":[\"a\"] \"include\":[\"x\"],\"id\":\"1\"}]",
                 1,
                 22,
                 {"include", "z.test", "include\t1"}},
        LintCase{"nested-object", kApp + "\"x\":{\"include\":[\"y\"]}}]", 1, 35, {}},
        LintCase{"deep-object", "[[{\"match_apps\":[\"a\"],\"id\":\"1\"}]]", 1, 3, {}},
        LintCase{"top-level-object", "{\"match_apps\":[\"a\"],\"id\":\"1\"}", 1, 1, {}},
        LintCase{"second-array", kApp + "\"include\":[\"x\"]}] [{\"id\":\"2\"}]", 1, 49, {}},
        LintCase{"string-outside-object", "[\"a\", {\"id\":\"1\"}]", 1, 2, {}},
        LintCase{"duplicate-key",
                 kApp + "\"include\":[\"x\"],\"include\":[\"y\"]}]",
                 1,
                 48,
                 {"a", "y", "include\t1"}},
        LintCase{"unknown-key", kApp + "\"inclde\":[\"x\"]}]", 1, 32, {}},
        LintCase{"empty-list-with-space",
                 kApp + "\"include\": []}]",
                 1,
                 41,
                 {"a", "x.test", "exclude\t-1"}},
        LintCase{
            "unquoted-in-array", kApp + "\"include\": [x]}]", 1, 41, {"a", "x", "exclude\t-1"}},
        LintCase{"unquoted-value",
                 "[{\"match_apps\": a,\"id\":\"1\"}]",
                 1,
                 16,
                 {"a", "x", "exclude\t-1"}},
        LintCase{"empty-document", "", 1, 1, {"a", "x", "exclude\t-1"}},
        LintCase{
            "empty-array-document", "[]", 1, 1, {"any.app", "any.test", "include\t2147483647"}},
        LintCase{"empty-apps-list",
                 "[{\"match_apps\":[],\"id\":\"1\"}]",
                 1,
                 16,
                 {"a", "x", "exclude\t-1"}},
        LintCase{"empty-entry", kApp + "\"include\":[\"\"]}]", 1, 43, {"a", "x", "exclude\t-1"}},
        LintCase{"blank-in-entry",
                 kApp + "\"include\":[\"x .test\"]}]",
                 1,
                 43,
                 {"a", "x.test", "exclude\t-1"}},
        LintCase{"build-throws", kApp + "\"include\":[\"face/\"]}]", 1, 43, {}},
        LintCase{
            "empty-include-list", kApp + "\"include\":[]}]", 1, 41, {"a", "x.test", "exclude\t-1"}},
        LintCase{"network-never-matches",
                 kApp + "\"include\":[\"128.0.0.0/1\"]}]",
                 1,
                 43,
                 {"a", "200.1.2.3", "exclude\t-1"}},
        LintCase{"ipv4-mapped",
                 kApp + "\"include\":[\"::ffff:10.0.0.1\"]}]",
                 1,
                 43,
                 {"a", "10.0.0.1", "exclude\t-1"}},
        LintCase{"network-zero-prefix",
                 kApp + "\"include\":[\"0.0.0.0/0\"]}]",
                 1,
                 43,
                 {"a", "1.2.3.4", "exclude\t-1"}},
        LintCase{"network-prefix-clamped",
                 kApp + "\"include\":[\"10.0.0.0/40\"]}]",
                 1,
                 43,
                 {"a", "10.0.0.1", "exclude\t-1"}},
        LintCase{"not-a-destination",
                 kApp + "\"include\":[\"https://x.test\"]}]",
                 1,
                 43,
                 {"a", "x.test", "exclude\t-1"}},
        LintCase{"upper-case",
                 kApp + "\"include\":[\"X.test\"]}]",
                 1,
                 43,
                 {"a", "x.test", "exclude\t-1"}},
        LintCase{"trailing-dot",
                 kApp + "\"include\":[\"x.test.\"]}]",
                 1,
                 43,
                 {"a", "x.test", "exclude\t-1"}},
        LintCase{"leading-dot",
                 kApp + "\"include\":[\".x.test\"]}]",
                 1,
                 43,
                 {"a", "a.x.test", "exclude\t-1"}},
        LintCase{"wildcard-misplaced",
                 kApp + "\"include\":[\"cdn.*\"]}]",
                 1,
                 43,
                 {"a", "other.org", "include\t1"}},
        LintCase{"wildcard-no-dot",
                 kApp + "\"include\":[\"*x.test\"]}]",
                 1,
                 43,
                 {"a", "badx.test", "include\t1"}},
        LintCase{"wildcard-shadowed",
                 kApp + "\"include\":[\"*.x.test\",\"cdn.x.test\"]}]",
                 1,
                 43,
                 {"a", "a.cdn.x.test", "exclude\t-1"}},
        LintCase{"network-shadowed",
                 kApp + "\"include\":[\"10.0.0.0/8\",\"10.1.0.0/16\"]}]",
                 1,
                 43,
                 {"a", "10.2.3.4", "exclude\t-1"}},
        LintCase{
            "missing-id", "[{\"match_apps\":[\"a\"]}]", 1, 2, {"a", "x", "include\t2147483647"}},
        LintCase{"duplicate-id",
                 kApp + "\"include\":[\"x\"]},{\"match_apps\":[\"b\"],\"id\":\"1\"}]",
                 1,
                 74,
                 {}},
        LintCase{"id-atoi",
                 "[{\"match_apps\":[\"a\"],\"id\":\"12abc\"}]",
                 1,
                 28,
                 {"a", "x", "include\t12"}},
        LintCase{"lambda-mixed",
                 "[{\"match_apps\":[\"#LAMBDA-APP\",\"a\"],\"include\":[\"x\"],\"id\":\"1\"}]",
                 1,
                 18,
                 {"b", "x", "exclude\t-1"}},
        LintCase{
            "app-in-several-rules",
            kApp +
                "\"include\":[\"x\"]},{\"match_apps\":[\"a\"],\"include\":[\"y\"],\"id\":\"2\"}]",
            1,
            64,
            {"a", "y", "exclude\t-1"}},
        LintCase{"include-and-exclude",
                 kApp + "\"include\":[\"x\"],\"exclude\":[\"x\"]}]",
                 1,
                 59,
                 {"a", "x", "include\t1"}}),
    [](const ::testing::TestParamInfo<LintCase>& info) {
      std::string name = info.param.code;
      for (char& ch : name) ch = ch == '-' ? '_' : ch;
      return name;
    });

// ---------------------------------------------------------------------------
// explain

TEST(TpaExplain, TracesTheFallbackToTheRulesOfEveryApplication) {
  const ToolResult r = runTool({"explain", kRules, "com.example.mail", "time.example.org"});
  EXPECT_EQ(r.exitCode, 0);
  for (const char* part : {
           "application: key \"#com.example.mail$\" found whole",
           "rule number 1:",
           "include: key \"#time.example.org$11\"",
           "precedence: neither list matched; falling back to rule number 0",
           "rule number 0 (the rules of every application), the fallback:",
           "whole key: matched \"#time.example.org$01\", value 300",
           "deciding rule: the rule at position 3, id 300",
           "decision: include\t300",
       }) {
    EXPECT_TRUE(contains(r.out, part)) << part << "\n" << r.out;
  }
}

TEST(TpaExplain, NamesEveryKindOfMatch) {
  const struct {
    std::string app, destination, part;
  } cases[] = {
      {"com.example.mail", "imap.example.com",
       "wildcard: the last 15 characters match \"#*.example.com$11\""},
      {"com.example.mail", "10.20.1.5", "prefix key \"#0000101000010100$11\" matched, value 100"},
      {"com.example.mail", "ads.example.com",
       "both matched; exclude is no shorter in either and longer in one: exclude"},
      {"com.example.game", "x.test", "is no stored application key"},
      {"com.example.game", "::ffff:203.0.113.9",
       "note: ::ffff:203.0.113.9 is an IPv4-mapped IPv6 address: IPv4 entries for 203.0.113.9"},
  };
  for (const auto& c : cases) {
    const ToolResult r = runTool({"explain", kRules, c.app, c.destination});
    EXPECT_TRUE(contains(r.out, c.part)) << c.part << "\n" << r.out;
  }
}

// A random rules document over small pools, so that entries collide.
std::string randomRules(std::mt19937& random) {
  static const char* kApps[] = {"a", "b", "com.x", "#LAMBDA-APP"};
  static const char* kDestinations[] = {
      "x.test",      "a.x.test",    "*.x.test",      "*.test",          "*",          "*x.test",
      "y.org",       "b.y.org",     "cdn.*",         "10.0.0.1",        "10.0.0.0/8", "10.1.0.0/16",
      "192.168.1.1", "2001:db8::1", "2001:db8::/32", "::ffff:10.0.0.1", "0.0.0.0/0",  ""};
  auto pick = [&](int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); };
  auto list = [&](const char* key, const char* const* pool, int size) {
    if (pick(4) == 0) return std::string();
    std::string out = std::string("\"") + key + "\":[";
    for (int n = pick(4); n > 0; --n)
      out += std::string("\"") + pool[pick(size)] + "\"" + (n > 1 ? "," : "");
    return out + "],";
  };
  std::string document = "[";
  for (int rule = pick(8) + 1; rule > 0; --rule) {
    document += "{" + list("match_apps", kApps, 4) + list("include", kDestinations, 18) +
                list("exclude", kDestinations, 18) + "\"id\":\"" + std::to_string(pick(5)) + "\"}" +
                (rule > 1 ? "," : "");
  }
  return document + "]";
}

TEST(TpaExplain, AgreesWithQueryOnGeneratedDocuments) {
  const std::vector<std::string> apps = {"a", "b", "com.x", "zzz"};
  const std::vector<std::string> destinations = {
      "x.test",      "a.x.test",        "q.x.test", "badx.test",      "y.org",       "b.y.org",
      "c.b.y.org",   "10.0.0.1",        "10.1.2.3", "10.200.0.1",     "192.168.1.1", "2001:db8::1",
      "2001:db8::5", "::ffff:10.0.0.1", "0.0.0.0",  "nothing.example"};
  std::mt19937 random(7);
  for (int round = 0; round < 25; ++round) {
    const std::string document = randomRules(random);
    TempFile file(document);
    std::vector<std::string> args = {"explain", file.path()};
    std::string input;
    std::vector<std::pair<std::string, std::string>> queries;
    for (const std::string& app : apps) {
      for (const std::string& destination : destinations) {
        args.insert(args.end(), {app, destination});
        input += app + "\t" + destination + "\n";
        queries.emplace_back(app, destination);
      }
    }
    const ToolResult explained = runTool(args);
    const ToolResult answered = runTool({"query", file.path()}, input);
    ASSERT_EQ(explained.exitCode, 0) << document << explained.err;
    ASSERT_EQ(answered.exitCode, 0) << document << answered.err;
    std::string verdicts;
    for (const std::string& line : linesOf(explained.out)) {
      if (line.rfind("  decision: ", 0) == 0) verdicts += line.substr(12) + "\n";
    }
    EXPECT_EQ(verdicts, answered.out) << document;
    EXPECT_EQ(answered.out, libraryAnswers(document, queries)) << document;
  }
}

}  // namespace
}  // namespace tpa::testing
