// The plain log writer, then the facade:
// validation, rule numbering, all-or-nothing rebuilds, builds in call order.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "api/diagnostics.h"
#include "base/log.h"
#include "mapper/map.h"
#include "mapper/trace.h"
#include "parser/json_parser.h"
#include "parser/rule.h"
#include "testing/facade.h"
#include "testing/log_capture.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace {

using tpa::api::Builder;
using tpa::api::TarnPatternAnalyzer;
using namespace tpa::testing;  // ask, Answer and the example

TEST(Log, LogMessageWritesExactlyTheFormattedTextToStdout) {
  ::testing::internal::CaptureStdout();
  const int written = LOG_message(123, "ignored", "value=%d text=%s", 42, "x");
  std::fflush(stdout);
  EXPECT_EQ("value=42 text=x", ::testing::internal::GetCapturedStdout());
  EXPECT_EQ(15, written);
}

TEST(Analyzer, ExcludesBeforeAnyBuildThenAnswersTheExampleAlsoFromItsCaches) {
  TarnPatternAnalyzer analyzer;
  Builder builder;
  EXPECT_EQ(Answer(0, kUntouched), ask(analyzer, "com.example.mail", "cdn.shop.test"));
  EXPECT_EQ(Answer(0, kUntouched), ask(builder, "com.example.mail", "cdn.shop.test"));
  builder.clearCache();  // nothing to clear
  ASSERT_EQ(tpa::error::TPA_ERROR_NONE, analyzer.build(kExample, false));
  expectExampleAnswers(analyzer);
  expectExampleAnswers(analyzer);
}

// The rule number an application selects, read from a traced query.
int ruleOf(TarnPatternAnalyzer& analyzer, const std::string& app) {
  tpa::mapper::QueryTrace trace;
  ask(analyzer, app, "any.test", &trace);
  return trace.rule;
}

TEST(Analyzer, NumbersRulesByPositionAndAnyApplicationRulesZero) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(
      0, analyzer.build(R"([{"include": ["a.test"]}, {"match_apps": ["#LAMBDA-APP"]},)"
                        R"( {"match_apps": ["c.app"]}, {"match_apps": ["#LAMBDA-APP", "d.app"]},)"
                        R"( {"match_apps": ["#LAMBDA-APP "]}])",
                        false));
  EXPECT_EQ(3, ruleOf(analyzer, "c.app"));  // two any-application rules before it
  EXPECT_EQ(4, ruleOf(analyzer, "d.app"));  // not exactly ["#LAMBDA-APP"]
  EXPECT_EQ(5, ruleOf(analyzer, "#LAMBDA-APP "));
  EXPECT_EQ(0, ruleOf(analyzer, "unknown.app"));
}

// Only "" and "[]" are rewritten: "" to a document without rules, "[]" to one
// rule of defaults (any app, include "*", the largest id). Both replace the old rules.
TEST(Analyzer, ValidatesOnlyTheTwoDegenerateTexts) {
  // clang-format off
  const struct { std::string text, validated; Answer answer; } cases[] = {
      {"", "[]", {0, -1}}, {"[]", "[{}]", {1, 2147483647}}, {"[{}]", "[{}]", {1, 2147483647}},
      {"[ ]", "[ ]", {0, -1}}, {" []", " []", {0, -1}}, {"[]\n", "[]\n", {0, -1}}};
  // clang-format on
  for (const auto& c : cases) {
    TarnPatternAnalyzer analyzer;
    std::string text = c.text;
    EXPECT_EQ(0, analyzer.validate(text));
    EXPECT_EQ(c.validated, text) << "validate(\"" << c.text << "\")";
    ASSERT_EQ(0, analyzer.build(kExample, false));
    ASSERT_EQ(0, analyzer.build(c.text, false)) << c.text;
    EXPECT_EQ(c.answer, ask(analyzer, "com.example.mail", "cdn.shop.test")) << c.text;
  }
}

// Entries in the caches of the map's machines still keyed (a built map's
// machines are frozen and have none, unless their freeze ran out of memory).
std::size_t cachedEntries(const tpa::mapper::Map& map) {
  std::size_t entries = 0;
  for (const auto* m : {map.appsMachine(), map.includeMachine(), map.excludeMachine()}) {
    if (m->keyed() != nullptr) entries += m->keyed()->cache()->listSize();
  }
  return entries;
}

// Every build empties the current caches first (a built map's machines are
// frozen: nothing of the build's caches is left); a failed one keeps the map
// and is logged once by the builder, after whatever the reader logged.
TEST(Analyzer, FailedBuildKeepsTheOldMapWithItsCachesEmptied) {
  const char tag[] = "tarn_patteren_analyzer.so";
  // clang-format off
  const struct { const char* source; bool file; int code; std::vector<LogRecord> logs; } cases[] = {
      {R"([{"include": ["cdn.shop.test"]})", false, tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH,
       {{6, tag, "[ERROR] [JSON] brackets count must be 0\n"},
        {6, tag, "[BUILDER] parse json failed : [-4]\n"}}},
      {"/nonexistent/tpa/rules.json", true, tpa::error::TPA_ERROR_JSON_FILE_NOT_FOUND,
       {{6, tag, "[BUILDER] parse json failed : [-6]\n"}}}};
  // clang-format on
  for (const auto& c : cases) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(kExample, false));
    expectExampleAnswers(analyzer);
    const tpa::mapper::Map* map = tpa::api::Inspect::map(analyzer);
    ASSERT_NE(nullptr, map->includeMachine()->frozen());
    ASSERT_EQ(0u, cachedEntries(*map));
    LogCapture capture;
    EXPECT_EQ(c.code, analyzer.build(c.source, c.file));
    ASSERT_EQ(map, tpa::api::Inspect::map(analyzer));
    EXPECT_EQ(0u, cachedEntries(*map));
    EXPECT_EQ(c.logs, capture.records());
    expectExampleAnswers(analyzer);
  }
}

// While a long build runs, one thread asks for a build and then another:
// they take effect in that order, so the second's rules are the last word.
TEST(Analyzer, BuildsTakeEffectInTheOrderTheyWereCalled) {
  std::string big = R"([{"include": [)";
  for (int i = 0; i < 200000; ++i) big += "\"d" + std::to_string(i) + ".test\", ";
  big += R"("x.test"], "id": "1"}])";
  TarnPatternAnalyzer analyzer;
  std::atomic<bool> longBuildDone{false};
  std::vector<std::thread> builders;
  for (const char* id : {"1", "2", "3"}) {
    const std::string doc =
        id[0] == '1' ? big : R"([{"include": ["x.test"], "id": ")" + std::string(id) + "\"}]";
    std::atomic<bool> calling{false};
    builders.emplace_back([&, doc] {
      calling = true;
      EXPECT_EQ(0, analyzer.build(doc, false));
      if (doc.size() > 100) longBuildDone = true;
    });
    while (!calling) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_FALSE(longBuildDone.load()) << "the long build ended too soon to test anything";
  for (std::thread& t : builders) t.join();
  EXPECT_EQ(Answer(1, 3), ask(analyzer, "any", "x.test"));
}

// Named "[]", a file would be renamed by validation if paths were validated.
TEST(Analyzer, BuildsFromARulesFileWhosePathIsNeverRewritten) {
  std::ofstream("[]", std::ios::binary) << kExample;
  TarnPatternAnalyzer analyzer;
  EXPECT_EQ(0, analyzer.build("[]", true));
  std::remove("[]");
  expectExampleAnswers(analyzer);
}

// Numbers longer than 32 bits in ids, octets and prefixes read as on 64-bit
// glibc, so a document answers alike on every architecture.
TEST(Analyzer, DocumentWithLongNumbersAnswersAsOn64Bit) {
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(
      R"([{"match_apps": ["a"], "include": ["4294967306.0.0.1"], "id": "4294967306"},)"
      R"( {"match_apps": ["b"], "include": ["10.0.0.0/4294967304"], "id": "99999999999999999999"},)"
      R"( {"match_apps": ["c"], "include": ["c.test"], "id": "-99999999999999999999"},)"
      R"( {"match_apps": ["d"], "exclude": ["192.168.0.0/ +4294967312"], "id": " +4294967297"}])",
      false));
  // clang-format off
  const struct { const char* app; const char* destination; Answer expected; } cases[] = {
      {"a", "10.0.0.1", {1, 10}}, {"a", "10.0.0.2", {0, -1}}, {"b", "10.200.0.1", {1, -1}},
      {"b", "11.0.0.1", {0, -1}}, {"c", "c.test", {1, 0}}, {"d", "192.168.5.5", {0, 1}},
      {"d", "192.169.0.1", {1, 1}},  // the default include "*"
  };
  // clang-format on
  for (const auto& c : cases)
    EXPECT_EQ(c.expected, ask(analyzer, c.app, c.destination)) << c.app << " " << c.destination;
}

TEST(Builder, MoveAssignmentTakesTheMapAndFailedBuildsKeepIt) {
  Builder a, b;
  ASSERT_EQ(0, a.build(R"([{"match_apps": ["x"], "include": ["a.test"], "id": "1"}])", false));
  ASSERT_EQ(0, b.build(R"([{"match_apps": ["x"], "include": ["b.test"], "id": "2"}])", false));
  const tpa::mapper::Map* bMap = tpa::api::Inspect::map(b);
  a = b;
  Builder& self = a;
  a = self;
  EXPECT_EQ(bMap, tpa::api::Inspect::map(a));
  EXPECT_EQ(nullptr, tpa::api::Inspect::map(b));
  EXPECT_EQ(Answer(1, 2), ask(a, "x", "b.test"));
  LogCapture quiet;
  EXPECT_NE(0, a.build("[{", false));
  EXPECT_EQ(bMap, tpa::api::Inspect::map(a));
}

// What the lint of a document that fails to build searches: the machines of
// the rules read before the reader failed, as the mended document builds
// them, said without a word to the log.
TEST(Inspect, MapOfRulesReadIsTheMapOfTheMendedDocument) {
  const std::string rules = R"([{"match_apps": ["x"], "include": ["*.a.test", "b.a.test"]}])";
  Builder mended;
  ASSERT_EQ(0, mended.build(rules, false));
  LogCapture log;
  const std::unique_ptr<tpa::mapper::Map> read = tpa::api::Inspect::mapOfRulesRead(rules + "]");
  ASSERT_NE(nullptr, read);
  EXPECT_TRUE(log.records().empty());
  const tpa::mapper::Map& built = *tpa::api::Inspect::map(mended);
  for (const std::string probe : {"#1", ".a.test$", "b.a.test", "c.a.test", "b.a.test$11"}) {
    EXPECT_EQ(built.includeMachine()->occurs(probe), read->includeMachine()->occurs(probe))
        << probe;
    EXPECT_EQ(built.excludeMachine()->occurs(probe), read->excludeMachine()->occurs(probe))
        << probe;
  }
  EXPECT_TRUE(read->includeMachine()->occurs("b.a.test"));
  EXPECT_FALSE(read->includeMachine()->occurs("c.a.test"));
}

// What a build ended with: its code (or the exception), its messages in order, then the answers
// to a fixed set of queries (every rule's applications and destinations, and strangers).
template <typename Build, typename Ask>
std::string outcomeOf(Build build, Ask ask) {
  std::string outcome;
  {
    LogCapture capture;
    try {
      outcome = std::to_string(build());
    } catch (const std::out_of_range&) {
      outcome = "out_of_range";
    } catch (const std::invalid_argument&) {
      outcome = "invalid_argument";
    }
    for (const LogRecord& r : capture.records()) outcome += "|" + r.text;
  }
  for (const char* app : {"a", "b", "z"}) {
    for (const char* to : {"a", "b.c", "x.b.c", "q.c", "10.0.0.1", "10.1.1.1", "::1", "2001:db8::5",
                           "zz", "#a$01"}) {
      const Answer answer = ask(app, to);
      outcome += " " + std::to_string(answer.first) + ":" + std::to_string(answer.second);
    }
  }
  return outcome;
}

// The build as it was before its lists' machines were made from their text: online machines,
// every rule put on one thread up to the first failure, then frozen.
std::string onlineOutcome(const std::string& doc) {
  std::unique_ptr<tpa::mapper::Map> map;
  return outcomeOf(
      [&] {
        tpa::parser::JsonParser parser;
        int result = parser.parse(doc, false);
        if (result != 0) return result;
        auto fresh = std::make_unique<tpa::mapper::Map>(100);
        (void)fresh->construct(parser.grossAppBytesCount(), parser.grossIncludeBytesCount(),
                               parser.grossExcludeBytesCount());
        int ordinal = 0;
        for (tpa::parser::Rule& rule : parser.getRules()) {
          result = fresh->put(tpa::parser::ruleNumber(rule.apps, ++ordinal), rule.apps,
                              rule.includeList, rule.excludeList, rule.id);
          if (result != 0) return result;
        }
        fresh->freeze();
        map = std::move(fresh);
        return 0;
      },
      [&](const char* app, const char* to) {
        if (!map) return Answer(0, kUntouched);
        const tpa::mapper::Decision d = map->get(app, to);
        return Answer(d.decision, d.value);
      });
}

std::string builderOutcome(const std::string& doc) {
  Builder b;
  return outcomeOf([&] { return b.build(doc, false); },
                   [&](const char* app, const char* to) { return ask(b, app, to); });
}

// Random documents whose lists hold wildcards, addresses, networks, a key that looks framed and
// the empty names that make a machine overflow, in any rule, and the entry that throws.
std::string randomDocument(std::mt19937& rng) {
  const char* const apps[] = {"\"a\"", "\"b\"", "\"#LAMBDA-APP\"", "\"\""};
  const char* const names[] = {"\"\"",         "\"a\"",         "\"b.c\"",         "\"*.c\"",
                               "\"*\"",        "\"x.b.c\"",     "\"10.0.0.1\"",    "\"10.0.0.0/8\"",
                               "\"::1\"",      "\"2001:db8::/32\"", "\"#a$01\"",   "\"\"",
                               "\"::/4294967296\""};
  const auto list = [&](const char* const* pool, std::size_t size, std::size_t most) {
    std::string l = "[";
    for (std::size_t k = rng() % (most + 1); k > 0; --k) {
      l += pool[rng() % size];
      if (k > 1) l += ", ";
    }
    return l + "]";
  };
  std::string doc = "[";
  for (int r = 1 + static_cast<int>(rng() % 5); r > 0; --r) {
    doc += "{";
    if (rng() % 3 != 0) doc += "\"match_apps\": " + list(apps, 4, 2) + ", ";
    // Mostly empty names and "a", which overflow; now and then the throwing entry.
    const std::size_t include = rng() % 2 ? 2 : rng() % 8 == 0 ? 13 : 12;
    if (rng() % 5 != 0) doc += "\"include\": " + list(names, include, 6) + ", ";
    if (rng() % 5 != 0) doc += "\"exclude\": " + list(names, rng() % 2 ? 2 : 12, 6) + ", ";
    doc += "\"id\": \"" + std::to_string(rng() % 9) + "\"}";
    if (r > 1) doc += ", ";
  }
  return doc + "]";
}

// The lists' machines are made from their whole text once every rule is in, on one thread or
// two; the outcome must be what online machines put rule by rule gave: the same code at the same
// rule (of two overflowing lists the earlier one's), the same messages, answers, exceptions.
TEST(Builder, OneOrTwoThreadsBuildAsOnlineMachinesPutRuleByRule) {
  std::vector<std::string> docs = {
      R"([{"include": ["a", "", ""]}, {"exclude": ["", "a", "a"]}])",
      R"([{"match_apps": ["a0"], "include": ["", "a", "a"], "exclude": ["", "a", "a", "a"]},)"
      R"( {"match_apps": ["a1"], "include": [""], "exclude": ["a", "", "", ""]},)"
      R"( {"match_apps": ["a2"], "include": ["", "a", "a"], "exclude": [""]}])",
      R"([{"exclude": ["", "a", "a"]}, {"match_apps": ["a"], "include": ["b.c"]},)"
      R"( {"include": ["a", "", ""]}])",
      R"([{"include": ["a", "", ""]}, {"exclude": ["::/4294967296"]}])",
      R"([{"exclude": ["::/4294967296"]}, {"include": ["a", "", ""]}])"};
  std::mt19937 rng(11);
  for (int i = 0; i < 300; ++i) docs.push_back(randomDocument(rng));
  int failed = 0;
  for (const std::string& doc : docs) {
    const std::string online = onlineOutcome(doc);
    failed += online.compare(0, 2, "-2") == 0 ? 1 : 0;
    for (const long long minimum : {1LL << 62, 0LL}) {
      tpa::api::Inspect::setTwoThreadMinimum(minimum);
      EXPECT_EQ(online, builderOutcome(doc)) << doc << " two threads: " << (minimum == 0);
    }
  }
  tpa::api::Inspect::setTwoThreadMinimum(1 << 16);
  EXPECT_GT(failed, 30);  // overflows are met, not only successes
}

}  // namespace
