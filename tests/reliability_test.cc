// Hostile documents, exhaustion and concurrency, through the facade the way
// the service's threads drive it. Each hostile build either succeeds with the
// answers its text implies or fails with a code while the old rules keep
// answering. Memory and speed under load are the benchmarks' (bench/).
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "testing/facade.h"
#include "testing/log_capture.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace {

using tpa::api::TarnPatternAnalyzer;
using namespace tpa::testing;  // ask, Answer and the example

// Builds on a 256 KiB stack: input-driven recursion would crash here.
int buildOnSmallStack(TarnPatternAnalyzer& analyzer, const std::string& doc) {
  int code = -12345;
  std::function<void()> job = [&] { code = analyzer.build(doc, false); };
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 * 1024);
  pthread_t thread;
  auto run = [](void* f) -> void* { return (*static_cast<std::function<void()>*>(f))(), nullptr; };
  pthread_create(&thread, &attr, run, &job);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  return code;
}

std::string repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += s;
  return out;
}

TEST(Hostile, DocumentsBuildAsReadOrFailAndKeepTheOldRules) {
  const int kDepth = 200000;
  const std::string nul("x\0y.test", 8), mutf8("n.\xC0\x80\xED\xA0\x80\xFF.test");
  const std::string big(1 << 16, 'x');
  // clang-format off
  const struct { std::string doc; int code; std::string app, destination; Answer answer; } cases[] = {
      {repeat("[", kDepth) + repeat("]", kDepth), 0, "a", "b", kNoRule},
      {repeat("[{", kDepth) + repeat("}]", kDepth), 0, "a", "b", {1, 2147483647}},
      {repeat("[", kDepth), tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH, "", "", {}},
      {"[" + repeat("{", kDepth) + "]", tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH, "", "", {}},
      {"[" + repeat("\"", kDepth) + repeat(":", kDepth) + "]", 0, "a", "b", kNoRule},
      {R"([{"include": [")" + nul + R"("], "id": "5"}])", 0, "a", nul, {1, 5}},
      {R"([{"include": [")" + nul + R"("], "id": "5"}])", 0, "a", "x", kNoRule},
      {R"([{"match_apps": [")" + mutf8 + R"("], "include": [")" + mutf8 + R"("], "id": "9"}])", 0,
       mutf8, mutf8, {1, 9}},
      {R"([{"include": [")" + big + R"("], "id": "3"}])", 0, "a", big, {1, 3}},
      // Each further top-level array announces every object again (k arrays
      // of one object make k(k+1)/2 rules), read as written within the
      // parser's budget of repeated rules and refused past it.
      {repeat(R"([{"include": ["x.test"], "id": "3"}])", 300), 0, "a", "x.test", {1, 3}},
      {repeat(R"([{"include": ["x.test"], "id": "3"}])", 8000), tpa::error::TPA_ERROR_OOM, "", "", {}},
      // The include automaton is sized without the flag after each key:
      // "#a$01", "#$01", "#$01" need 21 states of 20.
      {R"([{"include": ["a", "", ""]}])", tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, "", "", {}},
      {R"([{"exclude": ["", "a", "a"]}])", tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, "", "", {}},
      {R"([{"include": ["a", "", "", "b"]}])", 0, "a", "b", {1, 2147483647}},
  };
  // clang-format on
  LogCapture quiet;
  for (const auto& c : cases) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(kExample, false));
    expectExampleAnswers(analyzer);  // fills the caches, which the build empties
    ASSERT_EQ(c.code, buildOnSmallStack(analyzer, c.doc)) << c.doc.substr(0, 60);
    if (c.code != 0) {
      expectExampleAnswers(analyzer);
    } else {
      EXPECT_EQ(c.answer, ask(analyzer, c.app, c.destination)) << c.doc.substr(0, 60);
    }
  }
}

TEST(Hostile, BytesFilesAndTheTwoExceptionsLeaveTheAnalyzerWorking) {
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  LogCapture quiet;
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kExample, false));
  for (const std::string& doc : {all, "[" + all + "]", "[{\"" + all + "\": \"" + all + "\"}]"}) {
    try {
      if (analyzer.build(doc, false) != 0) expectExampleAnswers(analyzer);
    } catch (const std::out_of_range&) {  // "/" and "]" reach address parsing
    }
    ASSERT_EQ(0, analyzer.build(kExample, false));
  }
  for (const char* path : {"/", "/proc/self/status", "/dev/null", "/nonexistent/rules.json"}) {
    EXPECT_LT(analyzer.build(path, true), 0) << path;
    expectExampleAnswers(analyzer);
  }
  // Nothing catches these two: they leave build, and the lock with them.
  EXPECT_THROW((void)analyzer.build(R"([{"include": ["face/"]}])", false), std::out_of_range);
  EXPECT_THROW((void)analyzer.build(R"([{"exclude": ["::/4294967296"]}])", false),
               std::out_of_range);
  expectExampleAnswers(analyzer);
}

// Two documents for the rebuild test: queries on which they agree, and
// queries on which they differ (flip.test, the networks, the wildcard).
const std::vector<std::pair<std::string, std::string>> kQueries = {
    {"app.a", "stable.test"}, {"app.a", "flip.test"},   {"app.a", "10.9.8.7"},
    {"app.b", "w.wild.test"}, {"app.a", "2001:db8::1"}, {"app.c", "flip.test"}};
const std::string kDocs[2] = {
    R"([{"match_apps": ["app.a"], "include": ["stable.test", "flip.test", "10.0.0.0/8"],)"
    R"( "id": "1"}, {"include": ["*.wild.test"], "id": "3"}])",
    R"([{"match_apps": ["app.a", "app.c"], "include": ["stable.test", "2001:db8::/32"],)"
    R"( "exclude": ["flip.test"], "id": "2"}, {"exclude": ["*.wild.test"], "id": "4"}])"};

std::vector<Answer> answers(TarnPatternAnalyzer& analyzer) {
  std::vector<Answer> out;
  for (const auto& [app, to] : kQueries) out.push_back(ask(analyzer, app, to));
  return out;
}

// Readers query without pause, and between times fill the caches with
// other names, while a writer rebuilds, now back to back, now a millisecond
// or two apart, alternating two documents with a failing one. Every answer is
// one of the two documents' answers; a query that began after a build
// returned, with no build begun before it ended, has exactly that build's
// answers.
TEST(Concurrency, RebuildStormAnswersFromOneWholeMap) {
  std::vector<Answer> expected[2];  // each document's, from an analyzer of its own
  for (int g = 0; g < 2; ++g) {
    TarnPatternAnalyzer reference;
    ASSERT_EQ(0, reference.build(kDocs[g], false));
    expected[g] = answers(reference);
  }
  LogCapture quiet;
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kDocs[0], false));
  // Build k (document k % 2) begins after started = k and has returned when
  // completed = k.
  std::atomic<int> started{0}, completed{0};
  std::atomic<bool> done{false};
  std::atomic<long> mixed{0}, stale{0}, settled{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      for (std::size_t q = r; !done.load(); ++q) {
        const std::size_t i = q % kQueries.size();
        const int before = completed.load();
        const bool idle = started.load() == before;
        const Answer a = ask(analyzer, kQueries[i].first, kQueries[i].second);
        if (idle && started.load() == before) {
          ++settled;
          if (a != expected[before % 2][i]) ++stale;
        } else if (a != expected[0][i] && a != expected[1][i]) {
          ++mixed;
        }
        (void)ask(analyzer, "app.a", "n" + std::to_string(q * 31 % 150) + ".test");
      }
    });
  }
  int failures = 0;
  for (int k = 1; k <= 100; ++k) {
    started = k;
    if (analyzer.build(kDocs[k % 2], false) != 0) ++failures;
    completed = k;
    if (k % 4 < 2) std::this_thread::sleep_for(std::chrono::microseconds(500 + 100 * (k % 10)));
    if (analyzer.build("[{\"include\": [", false) != tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH) {
      ++failures;
    }
  }
  done = true;
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(0, failures);
  EXPECT_EQ(0, mixed.load());
  EXPECT_EQ(0, stale.load());
  EXPECT_GT(settled.load(), 0);
  EXPECT_EQ(expected[0], answers(analyzer));
}

}  // namespace
