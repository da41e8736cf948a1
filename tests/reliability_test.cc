// Hostile inputs, memory, exhaustion and concurrency, all through the facade
// (tpa::api::TarnPatternAnalyzer), the way the service's threads drive it.
// Memory figures come from the kernel (peak and current resident set) and
// from the allocator (live heap bytes); each test runs in its own process
// under ctest, so a test's peak is its own. Soak length: TPA_SOAK_SECONDS
// (default 3; the documented local run uses 60).
#include <android/log.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "api/analyzer.h"
#include "api/constants.h"
#include "gtest/gtest.h"
#include "testing/log_capture.h"

// The allocator statistics of a sanitizer runtime, when one is linked in.
// Sanitizers keep freed memory in quarantine and add shadow memory, so the
// memory bounds of a plain build do not apply to them.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using tpa::api::TarnPatternAnalyzer;

constexpr int kUntouched = -12345;
bool sanitized() { return &__sanitizer_get_current_allocated_bytes != nullptr; }

// ---- answers -----------------------------------------------------------

struct Answer {
  int decision;
  int value;
  bool operator==(const Answer& o) const { return decision == o.decision && value == o.value; }
};

std::ostream& operator<<(std::ostream& os, const Answer& a) {
  return os << (a.decision == 1 ? "include" : "exclude") << "/" << a.value;
}

Answer ask(TarnPatternAnalyzer& analyzer, const std::string& app, const std::string& destination) {
  Answer a{0, kUntouched};
  a.decision = analyzer.query(app, destination, a.value);
  return a;
}

const Answer kInclude7{1, 7};
const Answer kNoRule{0, -1};

// Rule 1 (id 7) for one app, with a domain, a wildcard and an IPv4 network.
constexpr char kKnownRules[] =
    R"([{"match_apps": ["com.example.mail"], "include": ["cdn.shop.test", "*.img.test",)"
    R"( "10.0.0.0/8"], "exclude": ["ads.shop.test"], "id": "7"}])";

void expectKnownRules(TarnPatternAnalyzer& analyzer) {
  EXPECT_EQ(kInclude7, ask(analyzer, "com.example.mail", "cdn.shop.test"));
  EXPECT_EQ(kInclude7, ask(analyzer, "com.example.mail", "a.img.test"));
  EXPECT_EQ(kInclude7, ask(analyzer, "com.example.mail", "10.20.30.40"));
  EXPECT_EQ((Answer{0, 7}), ask(analyzer, "com.example.mail", "ads.shop.test"));
  EXPECT_EQ(kNoRule, ask(analyzer, "org.other", "cdn.shop.test"));
}

// Drops the library's log records while alive: the soak and concurrency
// tests fail builds on purpose thousands of times.
class QuietLog {
 public:
  QuietLog() { __android_log_set_logger(&discard); }
  ~QuietLog() { __android_log_set_logger(&__android_log_stderr_logger); }
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;

 private:
  static void discard(const struct __android_logger_data*, const char*) {}
};

// ---- memory ------------------------------------------------------------

long peakRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

long currentRssKb() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Bytes the allocator has handed out and not yet taken back: exact under a
// sanitizer, glibc's count (which includes its per-thread caches) otherwise.
std::size_t liveHeapBytes() {
  if (sanitized()) return __sanitizer_get_current_allocated_bytes();
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Runs `round` for `warmUp` rounds (the allocator's pools settle), then for
// `rounds` more, and returns how much the live heap grew over the latter.
long heapGrowthOver(int warmUp, int rounds, const std::function<void(int)>& round) {
  int i = 0;
  for (; i < warmUp; ++i) round(i);
  const std::size_t before = liveHeapBytes();
  for (; i < warmUp + rounds; ++i) round(i);
  return static_cast<long>(liveHeapBytes()) - static_cast<long>(before);
}

// ---- documents ---------------------------------------------------------

// Rule i (1-based): app "app<i>" includes "host<i>.test" and the network
// 10.<i/256%256>.<i%256>.0/24 and excludes "ads<i>.test", with id i.
std::string numberedRules(int count) {
  std::string doc = "[";
  doc.reserve(static_cast<std::size_t>(count) * 120);
  for (int i = 1; i <= count; ++i) {
    const std::string n = std::to_string(i);
    if (i > 1) doc += ",\n";
    doc += R"({"match_apps": ["app)" + n + R"("], "include": ["host)" + n + R"(.test", "10.)" +
           std::to_string(i / 256 % 256) + "." + std::to_string(i % 256) +
           R"(.0/24"], "exclude": ["ads)" + n + R"(.test"], "id": ")" + n + R"("})";
  }
  return doc + "]";
}

void expectNumberedRule(TarnPatternAnalyzer& analyzer, int i, int count) {
  const std::string n = std::to_string(i);
  const std::string app = "app" + n;
  EXPECT_EQ((Answer{1, i}), ask(analyzer, app, "host" + n + ".test")) << app;
  EXPECT_EQ((Answer{0, i}), ask(analyzer, app, "ads" + n + ".test")) << app;
  // Another rule's entries fall back to rule 0, which holds nothing.
  EXPECT_EQ(kNoRule, ask(analyzer, app, "host" + std::to_string(i % count + 1) + ".test")) << app;
  const std::string inside =
      "10." + std::to_string(i / 256 % 256) + "." + std::to_string(i % 256) + ".77";
  // Rules i and i + 65536 share a network; each answers for it with its own id.
  EXPECT_EQ((Answer{1, i}), ask(analyzer, app, inside)) << app;
  EXPECT_EQ(kNoRule, ask(analyzer, "unknown.app", "host" + n + ".test"));
}

// Runs `body` on a thread with a stack of `bytes`: input-driven recursion
// overflows it and crashes the test instead of passing by luck.
void runOnSmallStack(const std::function<void()>& body, std::size_t bytes) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  ASSERT_EQ(0, pthread_attr_setstacksize(&attr, bytes));
  pthread_t thread;
  auto trampoline = [](void* arg) -> void* {
    (*static_cast<const std::function<void()>*>(arg))();
    return nullptr;
  };
  ASSERT_EQ(0,
            pthread_create(&thread, &attr, trampoline, const_cast<std::function<void()>*>(&body)));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
}

// Builds `doc` on a small stack and returns the code.
int buildOnSmallStack(TarnPatternAnalyzer& analyzer, const std::string& doc) {
  int code = kUntouched;
  runOnSmallStack([&] { code = analyzer.build(doc, false); }, 256 * 1024);
  return code;
}

int soakSeconds() {
  const char* text = std::getenv("TPA_SOAK_SECONDS");
  const int seconds = text ? std::atoi(text) : 0;
  return seconds > 0 ? seconds : 3;
}

// ---- size --------------------------------------------------------------

TEST(Hostile, FiftyMegabyteDocumentBuildsWithBoundedMemory) {
  const int kRules = 420000;
  std::string doc = numberedRules(kRules);
  ASSERT_GE(doc.size(), 50u << 20);
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kKnownRules, false));
  const long before = currentRssKb();
  const int code = analyzer.build(doc, false);
  const long growthKb = peakRssKb() - before;
  const double perByte = static_cast<double>(growthKb) * 1024 / static_cast<double>(doc.size());
  std::printf("50 MB document: %zu bytes, %d rules, code %d, peak RSS growth %ld MB (%.1f B/B)\n",
              doc.size(), kRules, code, growthKb / 1024, perByte);
  if (code == 0) {
    for (int i : {1, 9, 10, 99, 100, 65536, 65537, 123457, kRules})
      expectNumberedRule(analyzer, i, kRules);
  } else {
    EXPECT_LT(code, 0);
    expectKnownRules(analyzer);
  }
  // The reader's dictionary and the three automata are sized from the text;
  // everything together stays under 64 bytes per byte of document (about
  // 26 B/B measured). Sanitizers add shadow memory and quarantine.
  EXPECT_LT(perByte, sanitized() ? 96.0 : 64.0);
}

TEST(Hostile, FiftyMegabytesOfNetworksStayVirtual) {
  // An IPv4 network is counted at 32 symbols whatever its prefix, so a
  // document of short networks reserves far more automaton states than it
  // fills. The reservation is zero-filled and never touched: it must not
  // show up in the resident set.
  std::string doc = R"([{"match_apps": ["app"], "include": [)";
  int networks = 0;
  for (; doc.size() < (50u << 20); ++networks) {
    doc += "\"" + std::to_string(1 + networks % 223) + "." + std::to_string(networks / 223 % 256) +
           ".0.0/16\", ";
  }
  doc += R"("last.test"], "id": "5"}])";
  TarnPatternAnalyzer analyzer;
  const long before = currentRssKb();
  const int code = analyzer.build(doc, false);
  const long growthKb = peakRssKb() - before;
  const double perByte = static_cast<double>(growthKb) * 1024 / static_cast<double>(doc.size());
  std::printf("%d networks, %zu bytes, code %d, peak RSS growth %ld MB (%.1f B/B)\n", networks,
              doc.size(), code, growthKb / 1024, perByte);
  if (code == 0) {
    EXPECT_EQ((Answer{1, 5}), ask(analyzer, "app", "1.0.200.9"));
    EXPECT_EQ((Answer{1, 5}), ask(analyzer, "app", "last.test"));
    EXPECT_EQ(kNoRule, ask(analyzer, "app", "224.0.0.1"));
  }
  EXPECT_LT(perByte, sanitized() ? 96.0 : 64.0);
}

TEST(Hostile, HundredThousandRulesAnswerLikeTheirModel) {
  const int kRules = 100000;
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(numberedRules(kRules), false));
  for (int i = 1; i <= kRules; i += 997) expectNumberedRule(analyzer, i, kRules);
  expectNumberedRule(analyzer, kRules, kRules);
}

TEST(Hostile, MegabyteDestinationMatchesOnlyWhole) {
  const std::string big(1 << 20, 'x');
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(R"([{"include": [")" + big + R"("], "id": "3"}])", false));
  EXPECT_EQ((Answer{1, 3}), ask(analyzer, "any.app", big));
  EXPECT_EQ(kNoRule, ask(analyzer, "any.app", big.substr(1)));
  EXPECT_EQ(kNoRule, ask(analyzer, "any.app", big + "x"));
}

TEST(Hostile, RepeatedTopLevelArraysAreBoundedByWhatTheyCost) {
  // Every top-level array announces all objects collected so far, and each
  // announcement adds them all as rules again: k arrays of one object make
  // k(k+1)/2 rules. They are read as written, at a bounded cost per rule,
  // while the rules made again fit the parser's budget; past it the build
  // fails with a code and a log line, having made no more than the budget,
  // and the old rules keep answering.
  auto arrays = [](int k, const std::string& object) {
    std::string doc;
    for (int i = 0; i < k; ++i) doc += "[" + object + "]";
    return doc;
  };
  tpa::testing::LogCapture log;
  TarnPatternAnalyzer analyzer;
  const int kArrays = 300;
  const long before = currentRssKb();
  ASSERT_EQ(0, analyzer.build(arrays(kArrays, R"({"include": ["x.test"], "id": "3"})"), false));
  const double rules = kArrays * (kArrays + 1) / 2.0;
  const double perRule = static_cast<double>(peakRssKb() - before) * 1024 / rules;
  std::printf("%d arrays: %.0f rules, %.0f B of peak RSS per rule\n", kArrays, rules, perRule);
  EXPECT_EQ((Answer{1, 3}), ask(analyzer, "any.app", "x.test"));
  EXPECT_LT(perRule, sanitized() ? 4096.0 : 1536.0);
  // 363 arrays of {}: 66 066 rules of every application, each including "*".
  ASSERT_EQ(0, analyzer.build(arrays(363, "{}"), false));
  EXPECT_EQ((Answer{1, 2147483647}), ask(analyzer, "any.app", "x.test"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, analyzer.build(arrays(20000, "{}"), false));
  std::printf("20000 arrays refused in %.2f s\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  EXPECT_EQ((Answer{1, 2147483647}), ask(analyzer, "any.app", "x.test"));
  const std::vector<tpa::testing::LogRecord> records = log.records();
  ASSERT_EQ(2u, records.size());
  EXPECT_NE(std::string::npos, records[0].text.find("[ERROR] [BUILDER] rules past the budget"));
  EXPECT_EQ("[BUILDER] parse json failed : [-1]\n", records[1].text);
}

// ---- nesting -----------------------------------------------------------

struct Nesting {
  const char* name;
  std::string doc;
  int code;
};

TEST(Hostile, MillionLevelsOfNestingNeedNoStack) {
  QuietLog quiet;
  const std::size_t kDepth = 1000000;
  const std::string open(kDepth, '['), close(kDepth, ']');
  const std::string braces = std::string(kDepth, '{') + std::string(kDepth, '}');
  std::string mixed;
  for (std::size_t i = 0; i < kDepth / 2; ++i) mixed += "[{";
  for (std::size_t i = 0; i < kDepth / 2; ++i) mixed += "}]";
  const std::vector<Nesting> cases = {
      {"brackets", open + close, 0},
      {"braces", braces, 0},
      {"brackets around braces", "[" + braces + "]", 0},
      {"mixed", mixed, 0},
      {"unclosed brackets", open, tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH},
      {"unclosed braces", "[" + std::string(kDepth, '{') + "]",
       tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH},
      {"quotes and colons", "[" + std::string(kDepth, '"') + std::string(kDepth, ':') + "]", 0},
  };
  for (const Nesting& c : cases) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(kKnownRules, false));
    EXPECT_EQ(c.code, buildOnSmallStack(analyzer, c.doc)) << c.name;
    if (c.code != 0) expectKnownRules(analyzer);
  }
}

TEST(Hostile, DeeplyNestedRulesStillAnswer) {
  // Objects deeper than the first array level are still collected; only the
  // outermost array announces them. 500k empty objects become 500k rules of
  // defaults: every application, include "*".
  std::string mixed;
  for (int i = 0; i < 500000; ++i) mixed += "[{";
  for (int i = 0; i < 500000; ++i) mixed += "}]";
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, buildOnSmallStack(analyzer, mixed));
  EXPECT_EQ((Answer{1, 2147483647}), ask(analyzer, "any.app", "any.test"));
}

// ---- bytes -------------------------------------------------------------

TEST(Hostile, NulBytesAreOrdinaryCharacters) {
  const std::string app("com.a\0b", 7), host("x\0y.test", 8);
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(R"([{"match_apps": [")" + app + R"("], "include": [")" + host +
                                  R"("], "id": "5"}, {"include": ["a\0"], "id": "6"}])",
                              false));
  EXPECT_EQ((Answer{1, 5}), ask(analyzer, app, host));
  EXPECT_EQ(kNoRule, ask(analyzer, "com.a", host));  // the text before the NUL is another app
  EXPECT_EQ(kNoRule, ask(analyzer, app, "x"));
  EXPECT_EQ(kNoRule, ask(analyzer, app, "x\\0y.test"));
  EXPECT_EQ((Answer{1, 6}),
            ask(analyzer, "other", std::string("a\\0")));  // written as two characters
  EXPECT_EQ(kNoRule, ask(analyzer, "other", std::string("a\0", 2)));
}

TEST(Hostile, InvalidUtf8IsMatchedByteForByte) {
  // What a Java string's modified UTF-8 can carry (an encoded NUL C0 80, a
  // lone surrogate ED A0 80, a supplementary character as a surrogate pair)
  // and plain invalid bytes: keys are bytes, nothing is decoded or rejected.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"nul.\xC0\x80.test", "nul..test"},
      {"lone.\xED\xA0\x80.test", "lone..test"},
      {"pair.\xED\xA0\xBD\xED\xB8\x80.test", "pair.\xF0\x9F\x98\x80.test"},
      {"bad.\xFF\xFE.test", "bad..test"},
      {"cut.\xC3", "cut."},
  };
  for (const auto& [stored, other] : cases) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(R"([{"match_apps": [")" + stored + R"("], "include": [")" + stored +
                                    R"("], "id": "9"}])",
                                false));
    EXPECT_EQ((Answer{1, 9}), ask(analyzer, stored, stored)) << stored;
    EXPECT_EQ(kNoRule, ask(analyzer, stored, other)) << stored;
    EXPECT_EQ(kNoRule, ask(analyzer, other, stored)) << stored;
  }
}

TEST(Hostile, ArbitraryBytesNeverCrashABuild) {
  QuietLog quiet;
  // Every byte value, in a document and as a query, with a model-free check:
  // a build either succeeds or keeps the known rules.
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  for (const std::string& doc : {all, "[" + all + "]", "[{\"include\": [\"" + all + "\"]}]",
                                 "[{\"" + all + "\": \"" + all + "\"}]"}) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(kKnownRules, false));
    int code = kUntouched;
    try {
      code = analyzer.build(doc, false);
    } catch (const std::out_of_range&) {  // "/" and "]" reach address parsing
      code = 1;
    }
    if (code != 0) expectKnownRules(analyzer);
    const Answer a = ask(analyzer, all, all);
    EXPECT_TRUE(a.decision == 0 || a.decision == 1);
  }
}

TEST(Hostile, UnreadableRulesFilesFailWithACode) {
  // Paths that open but cannot be read as a file: a directory, a file whose
  // size the stream cannot tell, devices. Each fails with a code.
  for (const char* path :
       {"/", "/proc/self/status", "/dev/null", "/dev/zero", "/nonexistent/rules.json"}) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(kKnownRules, false));
    EXPECT_LT(analyzer.build(path, true), 0) << path;
    expectKnownRules(analyzer);
  }
}

// ---- exhaustion and exceptions -------------------------------------------

TEST(Capacity, ExhaustedMidKeyFailsAndOldRulesKeepAnswering) {
  // The include automaton is sized from the symbol totals, which count each
  // key's rule number but not the include/exclude flag after it: the keys
  // "#a$01", "#$01", "#$01" (13 characters, counted 10) need 21 states of 20.
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kKnownRules, false));
  expectKnownRules(analyzer);  // fills the caches, which the build empties
  tpa::testing::LogCapture capture;
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX,
            analyzer.build(R"([{"include": ["a", "", ""]}])", false));
  ASSERT_FALSE(capture.records().empty());
  EXPECT_EQ(7, capture.records()[0].priority);
  EXPECT_EQ(0u, capture.records()[0].text.rfind("[FATAL] [SA] ", 0)) << capture.records()[0].text;
  expectKnownRules(analyzer);
  // The exclude automaton runs short the same way. Only a document of short
  // keys gets there: any longer key brings enough spare states to cover.
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX,
            analyzer.build(R"([{"exclude": ["", "a", "a"]}])", false));
  expectKnownRules(analyzer);
  EXPECT_EQ(0, analyzer.build(R"([{"include": ["a", "", "", "b"]}])", false));
}

TEST(Capacity, DocumentedAddressExceptionsLeaveTheAnalyzerWorking) {
  // Nothing catches these two: they leave build, and the lock with them.
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kKnownRules, false));
  EXPECT_THROW((void)analyzer.build(R"([{"include": ["face/"]}])", false), std::out_of_range);
  expectKnownRules(analyzer);
  EXPECT_THROW((void)analyzer.build(R"([{"exclude": ["::/4294967296"]}])", false),
               std::out_of_range);
  expectKnownRules(analyzer);
  ASSERT_EQ(0, analyzer.build(R"([{"include": ["x.test"], "id": "4"}])", false));
  EXPECT_EQ((Answer{1, 4}), ask(analyzer, "any", "x.test"));
}

// ---- soak --------------------------------------------------------------

TEST(Soak, RebuildLoopKeepsMemoryFlat) {
  QuietLog quiet;
  // Good, failing and throwing builds in turn, with queries between them.
  const std::string good = numberedRules(200);
  const std::vector<std::string> docs = {
      good, kKnownRules, "[{", R"([{"include": ["a", "", ""]}])", R"([{"include": ["face/"]}])",
      ""};
  TarnPatternAnalyzer analyzer;
  auto round = [&] {
    for (const std::string& doc : docs) {
      try {
        (void)analyzer.build(doc, false);
      } catch (const std::out_of_range&) {
      }
      (void)ask(analyzer, "app7", "host7.test");
      (void)ask(analyzer, "com.example.mail", "10.1.2.3");
    }
  };
  for (int i = 0; i < 20; ++i) round();  // warm up the allocator's pools
  const std::size_t heapBefore = liveHeapBytes();
  const long rssBefore = currentRssKb();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(soakSeconds());
  long rounds = 0;
  while (std::chrono::steady_clock::now() < end) {
    round();
    ++rounds;
  }
  const long heapGrowth = static_cast<long>(liveHeapBytes()) - static_cast<long>(heapBefore);
  const long rssGrowthKb = currentRssKb() - rssBefore;
  std::printf("soak: %ld rounds of %zu builds, live heap %+ld B, RSS %+ld kB\n", rounds,
              docs.size(), heapGrowth, rssGrowthKb);
  EXPECT_EQ(kNoRule, ask(analyzer, "app7", "host7.test"));  // the last document was empty
  EXPECT_LT(heapGrowth, 64 * 1024);
  // Sanitizers keep freed memory in quarantine, so only a plain build's
  // resident set must stay flat.
  if (!sanitized()) {
    EXPECT_LT(rssGrowthKb, 8 * 1024);
  }
}

TEST(Soak, DistinctQueriesKeepMemoryFlat) {
  // Every cache in front of the automata is bounded by entries: a stream of
  // names never asked before must not grow the heap.
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kKnownRules, false));
  auto round = [&](int i) {
    const std::string n = std::to_string(i);
    (void)ask(analyzer, "com.example.mail", "h" + n + ".img.test");
    (void)ask(analyzer, "app" + n, "10." + std::to_string(i % 256) + ".2.3");
    (void)ask(analyzer, "com.example.mail", "2001:db8::" + std::to_string(i % 9999));
  };
  const long heapGrowth = heapGrowthOver(2000, 200000, round);
  std::printf("600000 distinct queries: live heap %+ld B\n", heapGrowth);
  EXPECT_LT(heapGrowth, 64 * 1024);
  expectKnownRules(analyzer);
}

TEST(Soak, FailedBuildsOnOneMapKeepMemoryFlat) {
  // A failed build keeps the old map but empties its caches first; queries
  // for ever new destinations between such builds must not pile up cache
  // bookkeeping for released entries.
  QuietLog quiet;
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kKnownRules, false));
  auto round = [&](int i) {
    (void)analyzer.build("[{", false);
    (void)ask(analyzer, "com.example.mail", "host" + std::to_string(i) + ".test");
    (void)ask(analyzer, "app" + std::to_string(i), "10.1.2.3");
  };
  const long heapGrowth = heapGrowthOver(1000, 40000, round);
  std::printf("40000 failed builds with fresh queries: live heap %+ld B\n", heapGrowth);
  EXPECT_LT(heapGrowth, 64 * 1024);
  expectKnownRules(analyzer);
}

// ---- concurrency -------------------------------------------------------

// Two rule sets that differ in some answers and agree in others, and the
// answers each gives to a fixed list of queries.
struct Generation {
  std::string doc;
  std::vector<Answer> answers;
};

const std::vector<std::pair<std::string, std::string>> kQueries = {
    {"app.a", "stable.test"}, {"app.a", "flip.test"}, {"app.a", "never.test"},
    {"app.b", "stable.test"}, {"app.a", "10.9.8.7"},  {"app.b", "w.wild.test"},
    {"app.a", "2001:db8::1"}, {"app.c", "flip.test"}, {"app.a", "x.wild.test"},
};

std::vector<Generation> generations() {
  std::vector<Generation> g = {
      {R"([{"match_apps": ["app.a"], "include": ["stable.test", "flip.test", "10.0.0.0/8"],)"
       R"( "exclude": ["never.test"], "id": "1"}, {"include": ["*.wild.test"], "id": "3"}])",
       {}},
      {R"([{"match_apps": ["app.a", "app.c"], "include": ["stable.test", "2001:db8::/32"],)"
       R"( "exclude": ["never.test", "flip.test"], "id": "2"}, {"exclude": ["*.wild.test"], "id": "4"}])",
       {}},
  };
  for (Generation& gen : g) {
    TarnPatternAnalyzer reference;
    EXPECT_EQ(0, reference.build(gen.doc, false));
    for (const auto& [app, destination] : kQueries)
      gen.answers.push_back(ask(reference, app, destination));
  }
  return g;
}

TEST(Concurrency, QueriesDuringRebuildsSeeOldOrNewRules) {
  QuietLog quiet;
  const std::vector<Generation> gens = generations();
  ASSERT_NE(gens[0].answers, gens[1].answers);
  const std::vector<std::string> failing = {"[{\"include\": [", R"([{"include": ["a", "", ""]}])",
                                            R"([{"include": ["face/"]}])"};
  TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(gens[0].doc, false));
  std::atomic<bool> done{false};
  std::atomic<long> queries{0}, wrong{0}, failedBuilds{0};
  const int kReaders = 4, kRebuilds = 200;
  std::vector<std::thread> readers;
  for (int r = 0; r < kReaders; ++r) {
    readers.emplace_back([&, r] {
      // At least one full pass after the last rebuild, however the threads run.
      for (bool last = false; !last;) {
        last = done.load();
        for (std::size_t q = 0; q < kQueries.size(); ++q) {
          const std::size_t at = (q + static_cast<std::size_t>(r)) % kQueries.size();
          const Answer a = ask(analyzer, kQueries[at].first, kQueries[at].second);
          if (!(a == gens[0].answers[at]) && !(a == gens[1].answers[at])) ++wrong;
          ++queries;
          // Destinations no rule names push the caches past their capacity.
          (void)ask(analyzer, "app.a", "n" + std::to_string(queries.load() % 150) + ".test");
        }
      }
    });
  }
  std::thread writer([&] {
    for (int i = 1; i <= kRebuilds; ++i) {
      if (analyzer.build(gens[i % 2].doc, false) != 0) ++wrong;
      const std::string& bad = failing[static_cast<std::size_t>(i) % failing.size()];
      try {
        if (analyzer.build(bad, false) != 0) ++failedBuilds;
      } catch (const std::out_of_range&) {
        ++failedBuilds;
      }
    }
    done = true;
  });
  writer.join();
  for (std::thread& t : readers) t.join();
  std::printf("%d readers, %ld queries, %d rebuilds, %ld failed builds\n", kReaders, queries.load(),
              kRebuilds, failedBuilds.load());
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(kRebuilds, failedBuilds.load());
  for (std::size_t q = 0; q < kQueries.size(); ++q) {  // the last good build was generation 0
    EXPECT_EQ(gens[0].answers[q], ask(analyzer, kQueries[q].first, kQueries[q].second)) << q;
  }
}

TEST(Concurrency, IndependentAnalyzersShareNoState) {
  // Every thread builds and asks its own analyzer: anything global that the
  // library writes (a static cache, a shared buffer) shows up here as a race
  // or as another thread's answer.
  const std::vector<Generation> gens = generations();
  std::atomic<long> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      TarnPatternAnalyzer own;
      for (int i = 0; i < 50; ++i) {
        const Generation& gen = gens[static_cast<std::size_t>(i + t) % 2];
        if (own.build(gen.doc, false) != 0) ++wrong;
        for (std::size_t q = 0; q < kQueries.size(); ++q) {
          if (!(ask(own, kQueries[q].first, kQueries[q].second) == gen.answers[q])) ++wrong;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
}

}  // namespace
