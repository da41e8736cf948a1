// The facade: validation, rule numbering, all-or-nothing rebuilds, the lock.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "api/analyzer.h"
#include "api/constants.h"
#include "api/log.h"
#include "machine/fsm.h"
#include "mapper/map.h"
#include "mapper/trace.h"
#include "testing/log_capture.h"

namespace {

using tpa::api::Builder;
using tpa::api::TarnPatternAnalyzer;
using tpa::testing::LogCapture;
using tpa::testing::LogRecord;

constexpr int kInclude = 1;
constexpr int kExclude = 0;
constexpr int kNoRule = -1;
constexpr int kDefaultId = 2147483647;

// Rule 1 belongs to com.example.mail (id 7); the any-application rule has id 9.
const char kExample[] = R"([{"match_apps": ["com.example.mail"], "include": ["cdn.shop.test"],)"
                        R"( "exclude": ["ads.other.test"], "id": "7"},)"
                        R"( {"match_apps": ["#LAMBDA-APP"], "include": ["none.invalid"],)"
                        R"( "exclude": ["ads.shop.test"], "id": "9"}])";

struct Answer {
  int decision;
  int value;
  bool operator==(const Answer& o) const { return decision == o.decision && value == o.value; }
};

std::ostream& operator<<(std::ostream& os, const Answer& a) {
  return os << "{decision " << a.decision << ", value " << a.value << "}";
}

Answer ask(TarnPatternAnalyzer& analyzer, const std::string& app, const std::string& destination) {
  int value = 12345;
  int decision = analyzer.query(app, destination, value);
  return {decision, value};
}

Answer ask(const Builder& builder, const std::string& app, const std::string& destination) {
  int value = 12345;
  int decision = builder.query(app, destination, value);
  return {decision, value};
}

struct Case {
  const char* app;
  const char* destination;
  Answer expected;
};

// The example document's answers: rule 1 first, then the fallback to rule 0.
const Case kExampleCases[] = {
    {"com.example.mail", "cdn.shop.test", {kInclude, 7}},
    {"com.example.mail", "ads.other.test", {kExclude, 7}},
    {"com.example.mail", "ads.shop.test", {kExclude, 9}},
    {"com.example.mail", "none.invalid", {kInclude, 9}},
    {"org.unknown.app", "none.invalid", {kInclude, 9}},
    {"org.unknown.app", "cdn.shop.test", {kExclude, kNoRule}},
    {"org.unknown.app", "unlisted.test", {kExclude, kNoRule}},
};

void expectExampleAnswers(TarnPatternAnalyzer& analyzer) {
  for (const Case& c : kExampleCases) {
    EXPECT_EQ(c.expected, ask(analyzer, c.app, c.destination)) << c.app << " " << c.destination;
  }
}

TEST(Analyzer, QueryBeforeBuildExcludesAndLeavesValueUntouched) {
  TarnPatternAnalyzer analyzer;
  EXPECT_EQ((Answer{kExclude, 12345}), ask(analyzer, "com.example.mail", "cdn.shop.test"));
  EXPECT_EQ(nullptr, analyzer.getMap());
  Builder builder;
  EXPECT_EQ((Answer{kExclude, 12345}), ask(builder, "com.example.mail", "cdn.shop.test"));
  builder.clearCache();  // nothing to clear
}

TEST(Analyzer, AnswersTheExampleDocument) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(tpa::error::TPA_ERROR_NONE, analyzer.build(kExample, false));
  ASSERT_NE(nullptr, analyzer.getMap());
  expectExampleAnswers(analyzer);
  expectExampleAnswers(analyzer);  // again, now from the caches
}

// The rule number an application selects, read from a traced query.
int ruleOf(TarnPatternAnalyzer& analyzer, const std::string& app) {
  tpa::mapper::QueryTrace trace;
  int value = 0;
  (void)analyzer.query(app, "any.test", value, &trace);
  return trace.rule;
}

TEST(Analyzer, NumbersRulesByPositionAndAnyApplicationRulesZero) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(R"([{"include": ["a.test"]},)"
                              R"( {"match_apps": ["#LAMBDA-APP"]},)"
                              R"( {"match_apps": ["c.app"]},)"
                              R"( {"match_apps": ["#LAMBDA-APP", "d.app"]},)"
                              R"( {"match_apps": ["#LAMBDA-APP "]}])",
                              false));
  EXPECT_EQ(3, ruleOf(analyzer, "c.app"));  // two any-application rules before it
  EXPECT_EQ(4, ruleOf(analyzer, "d.app"));  // not exactly ["#LAMBDA-APP"]
  EXPECT_EQ(5, ruleOf(analyzer, "#LAMBDA-APP "));
  EXPECT_EQ(0, ruleOf(analyzer, "unknown.app"));
  ASSERT_EQ(0,
            analyzer.build(R"([{"match_apps": ["a.app"]}, {}, {"match_apps": ["c.app"]}])", false));
  EXPECT_EQ(1, ruleOf(analyzer, "a.app"));
  EXPECT_EQ(3, ruleOf(analyzer, "c.app"));
}

TEST(Analyzer, ValidateRewritesOnlyTheTwoDegenerateTexts) {
  const struct {
    const char* text;
    const char* validated;
  } cases[] = {
      {"", "[]"},      // an empty text is an empty array, not "[{}]"
      {"[]", "[{}]"},  // an empty array is one rule of defaults
      {"[{}]", "[{}]"}, {"[ ]", "[ ]"}, {" []", " []"}, {"[]\n", "[]\n"}, {"{}", "{}"}, {"x", "x"},
  };
  TarnPatternAnalyzer analyzer;
  for (const auto& c : cases) {
    std::string text = c.text;
    EXPECT_EQ(0, analyzer.validate(text));
    EXPECT_EQ(c.validated, text) << "validate(\"" << c.text << "\")";
  }
}

TEST(Analyzer, EmptyTextBuildsAMapWithoutRules) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kExample, false));
  ASSERT_EQ(0, analyzer.build("", false));
  EXPECT_NE(nullptr, analyzer.getMap());
  EXPECT_EQ((Answer{kExclude, kNoRule}), ask(analyzer, "com.example.mail", "cdn.shop.test"));
  EXPECT_EQ((Answer{kExclude, kNoRule}), ask(analyzer, "org.unknown.app", "none.invalid"));
}

TEST(Analyzer, EmptyArrayBuildsOneRuleOfDefaults) {
  // "[{}]": any application, include "*" (every destination), id 2147483647.
  for (const char* text : {"[]", "[{}]"}) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(text, false)) << text;
    EXPECT_EQ((Answer{kInclude, kDefaultId}), ask(analyzer, "com.example.mail", "cdn.shop.test"))
        << text;
    EXPECT_EQ((Answer{kInclude, kDefaultId}), ask(analyzer, "org.unknown.app", "a.b.c")) << text;
  }
}

TEST(Analyzer, FailedBuildKeepsTheOldRulesAndLogsOnce) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kExample, false));
  expectExampleAnswers(analyzer);  // fills the caches that the failed build empties
  const tpa::mapper::Map* before = analyzer.getMap();
  LogCapture capture;
  EXPECT_EQ(tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH,
            analyzer.build(R"([{"include": ["cdn.shop.test"]})", false));
  EXPECT_EQ(before, analyzer.getMap());
  std::vector<LogRecord> records = capture.records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ((LogRecord{6, "tarn_patteren_analyzer.so", "[BUILDER] parse json failed : [-4]\n"}),
            records.back());
  EXPECT_EQ(1, std::count_if(records.begin(), records.end(),
                             [](const LogRecord& r) { return r.text.rfind("[BUILDER]", 0) == 0; }));
  expectExampleAnswers(analyzer);
}

// Entries listed in the three caches of a map.
size_t cachedEntries(const tpa::mapper::Map& map) {
  return map.appsMachine()->cache()->listSize() + map.includeMachine()->cache()->listSize() +
         map.excludeMachine()->cache()->listSize();
}

TEST(Analyzer, EveryBuildEmptiesTheCurrentCachesFirst) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kExample, false));
  const tpa::mapper::Map* map = analyzer.getMap();
  expectExampleAnswers(analyzer);
  ASSERT_GT(cachedEntries(*map), 0u);
  LogCapture quiet;
  ASSERT_NE(0, analyzer.build("[{", false));  // fails, and keeps the map...
  ASSERT_EQ(map, analyzer.getMap());
  EXPECT_EQ(0u, cachedEntries(*map));  // ...with its caches emptied all the same
  expectExampleAnswers(analyzer);
}

TEST(Analyzer, MissingRulesFileFailsWithItsCode) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kExample, false));
  LogCapture capture;
  EXPECT_EQ(tpa::error::TPA_ERROR_JSON_FILE_NOT_FOUND,
            analyzer.build("/nonexistent/tpa/rules.json", true));
  EXPECT_EQ((std::vector<LogRecord>{
                {6, "tarn_patteren_analyzer.so", "[BUILDER] parse json failed : [-6]\n"}}),
            capture.records());
  expectExampleAnswers(analyzer);
}

TEST(Analyzer, PathsAreNeverValidated) {
  // As JSON text "" and "[]" are rewritten; as paths they name no file.
  TarnPatternAnalyzer analyzer;
  LogCapture capture;
  EXPECT_EQ(tpa::error::TPA_ERROR_JSON_FILE_NOT_FOUND, analyzer.build("", true));
  EXPECT_EQ(tpa::error::TPA_ERROR_JSON_FILE_NOT_FOUND, analyzer.build("[]", true));
  EXPECT_EQ(nullptr, analyzer.getMap());
}

TEST(Analyzer, BuildsFromARulesFile) {
  std::string path = ::testing::TempDir() + "tpa_api_test_rules.json";
  {
    std::ofstream file(path, std::ios::binary);
    file << kExample;
  }
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(path, true));
  expectExampleAnswers(analyzer);
  std::remove(path.c_str());
}

TEST(Analyzer, TracedQueryGivesTheSameAnswer) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kExample, false));
  for (const Case& c : kExampleCases) {
    int value = 12345;
    int decision = analyzer.query(c.app, c.destination, value, nullptr);
    EXPECT_EQ(c.expected, (Answer{decision, value})) << c.app << " " << c.destination;
  }
}

TEST(Builder, MoveAssignmentTakesTheMapAndEmptiesTheSource) {
  Builder a;
  Builder b;
  ASSERT_EQ(0, a.build(R"([{"match_apps": ["x"], "include": ["a.test"], "id": "1"}])", false));
  ASSERT_EQ(0, b.build(R"([{"match_apps": ["x"], "include": ["b.test"], "id": "2"}])", false));
  const tpa::mapper::Map* bMap = b.getMap();
  a = b;
  EXPECT_EQ(bMap, a.getMap());
  EXPECT_EQ(nullptr, b.getMap());
  EXPECT_EQ((Answer{kInclude, 2}), ask(a, "x", "b.test"));
  EXPECT_EQ((Answer{kExclude, kNoRule}), ask(a, "x", "a.test"));
  EXPECT_EQ((Answer{kExclude, 12345}), ask(b, "x", "b.test"));
  Builder& self = a;
  a = self;
  EXPECT_EQ(bMap, a.getMap());
}

TEST(Builder, FailedBuildLeavesTheMapAlone) {
  Builder builder;
  ASSERT_EQ(0, builder.build(kExample, false));
  const tpa::mapper::Map* before = builder.getMap();
  LogCapture capture;
  EXPECT_NE(0, builder.build("[{", false));
  EXPECT_EQ(before, builder.getMap());
  EXPECT_EQ((Answer{kInclude, 7}), ask(builder, "com.example.mail", "cdn.shop.test"));
}

// Readers query stable answers (the same in both documents) while a writer
// alternates between the two documents and a malformed one: no reader may
// ever see a half-built or missing map.
TEST(AnalyzerConcurrency, QueriesDuringRebuildsSeeOldOrNewRules) {
  const std::string before =
      R"([{"match_apps": ["app.a"], "include": ["stable.test", "flip.test"],)"
      R"( "exclude": ["never.test"], "id": "1"}])";
  const std::string after = R"([{"match_apps": ["app.a"], "include": ["stable.test"],)"
                            R"( "exclude": ["never.test", "flip.test"], "id": "2"}])";
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(before, false));
  LogCapture quiet;  // the malformed builds log; keep the output readable
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        Answer stable = ask(analyzer, "app.a", "stable.test");
        Answer never = ask(analyzer, "app.a", "never.test");
        Answer flip = ask(analyzer, "app.a", "flip.test");
        ask(analyzer, "app.a", "n" + std::to_string(i % 150) + ".test");  // evictions
        if (stable.decision != kInclude || (stable.value != 1 && stable.value != 2)) ++wrong;
        if (never.decision != kExclude || (never.value != 1 && never.value != 2)) ++wrong;
        if (!(flip == Answer{kInclude, 1}) && !(flip == Answer{kExclude, 2})) ++wrong;
      }
    });
  }
  std::atomic<int> failedBuilds{0};
  threads.emplace_back([&] {
    for (int i = 0; i < 200; ++i) {
      if (analyzer.build(i % 2 == 0 ? after : before, false) != 0) ++failedBuilds;
      if (analyzer.build("[{\"id\": ", false) == 0) ++failedBuilds;
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(0, failedBuilds.load());
  EXPECT_EQ((Answer{kInclude, 1}), ask(analyzer, "app.a", "flip.test"));  // last: `before`
}

}  // namespace
