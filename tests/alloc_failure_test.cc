// Allocation failure, walked point by point as SQLite walks its own: the Nth
// allocation of a build (or of a run of queries) fails, once or from then on,
// for N = 1, 2, ... until the build completes without reaching N. Every failed
// build must return TPA_ERROR_OOM with its log line, leave the previous rules
// answering and nothing allocated behind (LeakSanitizer checks the calloc'd
// blocks at exit); a later build of the same document must answer as a fresh
// one. Queries must answer unchanged whatever fails under them.
//
// The hook: operator new/new[] are replaced in this binary, and the library's
// own calloc and realloc calls are routed through __wrap_calloc and
// __wrap_realloc by the linker (--wrap, see CMakeLists.txt).
#include <android/log.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "machine/fsm.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

extern "C" void* __real_calloc(std::size_t count, std::size_t size);
extern "C" void* __real_realloc(void* p, std::size_t size);

namespace {

// While armed, allocation number failAt (counted from arming) fails, and with
// sticky every later one too. Single-threaded, like the test.
struct Injector {
  long failAt = 0;  // 0: disarmed
  bool sticky = false;
  long counted = 0;
  long failures = 0;
  long live = 0;  // blocks from operator new not yet deleted
} hook;

bool failHere() {
  if (hook.failAt == 0) return false;
  ++hook.counted;
  if (hook.counted < hook.failAt || (!hook.sticky && hook.counted > hook.failAt)) return false;
  ++hook.failures;
  return true;
}

void* allocate(std::size_t n) {
  void* p = failHere() ? nullptr : std::malloc(n == 0 ? 1 : n);
  if (p == nullptr) throw std::bad_alloc();
  ++hook.live;
  return p;
}

void release(void* p) noexcept {
  if (p == nullptr) return;
  --hook.live;
  std::free(p);
}

}  // namespace

void* operator new(std::size_t n) { return allocate(n); }
void* operator new[](std::size_t n) { return allocate(n); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }

extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
  return failHere() ? nullptr : __real_calloc(count, size);
}
extern "C" void* __wrap_realloc(void* p, std::size_t size) {
  return failHere() ? nullptr : __real_realloc(p, size);
}

namespace {

using tpa::api::TarnPatternAnalyzer;

// Every kind of rule and destination: per-app and any-app rules (no apps, only
// "#LAMBDA-APP", and "#LAMBDA-APP" among others), wildcards, IPv4 and IPv6
// addresses and networks, include and exclude; and a second top-level array,
// which makes the first one's rules again.
const std::string kDocument = R"([
 {"match_apps": ["com.mail"], "include": ["*.shop.test", "cdn.test", "10.1.0.0/16", "2001:db8::/32"],
  "exclude": ["ads.shop.test", "10.1.2.3", "2001:db8::1"], "id": "7"},
 {"match_apps": ["#LAMBDA-APP"], "include": ["none.invalid", "192.168.1.1", "::1"],
  "exclude": ["*.track.test", "172.16.0.0/12", "fe80::/10"], "id": "9"},
 {"include": ["open.test"], "exclude": ["ads.other.test"], "id": "11"},
 {"match_apps": ["com.chat", "#LAMBDA-APP"], "exclude": ["blocked.test"], "id": "12"}
] [{"match_apps": ["com.late"], "include": ["late.test"], "id": "13"}])";
const std::string kPrevious =
    R"([{"match_apps": ["com.mail"], "include": ["cdn.test"], "id": "1"}])";

// Made before any hook is armed: asking allocates nothing in the test itself.
const std::vector<std::pair<std::string, std::string>> kQueries = {
    {"com.mail", "x.shop.test"}, {"com.mail", "ads.shop.test"}, {"com.mail", "cdn.test"},
    {"com.mail", "10.1.9.9"},    {"com.mail", "10.1.2.3"},      {"com.mail", "2001:db8::5"},
    {"com.mail", "2001:db8::1"}, {"other", "none.invalid"},     {"other", "192.168.1.1"},
    {"other", "::1"},            {"other", "a.track.test"},     {"other", "172.20.1.1"},
    {"other", "fe80::1"},        {"other", "open.test"},        {"com.chat", "any.test"},
    {"com.chat", "blocked.test"}, {"other", "unknown.test"},    {"com.mail", "x.shop.test"},
    {"com.late", "late.test"}};

using Answers = std::array<std::pair<int, int>, 19>;  // (decision, value) per query

Answers answers(TarnPatternAnalyzer& analyzer) {
  Answers out{};
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i].second = -2;
    out[i].first = analyzer.query(kQueries[i].first, kQueries[i].second, out[i].second);
  }
  return out;
}

// Keeps the last log line without allocating, so that logging under an
// armed hook changes nothing.
struct LastLog {
  int priority = 0;
  char tag[64] = {};
  char text[256] = {};
} lastLog;

void keepLast(const struct __android_logger_data* data, const char* message) {
  lastLog.priority = data->priority;
  std::snprintf(lastLog.tag, sizeof lastLog.tag, "%s", data->tag ? data->tag : "");
  std::snprintf(lastLog.text, sizeof lastLog.text, "%s", message);
}

class AllocFailure : public ::testing::Test {
 protected:
  void SetUp() override { __android_log_set_logger(&keepLast); }
  void TearDown() override {
    hook.failAt = 0;
    __android_log_set_logger(&__android_log_stderr_logger);
  }
  static void arm(long n, bool sticky) { hook = {n, sticky, 0, 0, hook.live}; }
  static long disarm() {
    hook.failAt = 0;
    return hook.failures;
  }
  // Runs `attempt(n, sticky)`, which arms the hook itself, for n = 1, 2, ...
  // once and sticky, until an attempt meets no failing allocation.
  template <typename Attempt>
  static void walk(const char* what, Attempt attempt) {
    for (long n = 1, points = 0;; ++n) {
      for (const bool sticky : {false, true}) {
        SCOPED_TRACE("allocation " + std::to_string(n) + (sticky ? " and every later one" : ""));
        attempt(n, sticky);
        if (HasFatalFailure()) return;
        if (hook.failures == 0) {
          std::printf("%s: %ld allocations, %ld failing runs\n", what, n - 1, points);
          return;
        }
        ++points;
      }
    }
  }
};

TEST_F(AllocFailure, EveryFailingAllocationOfABuildFailsItCleanly) {
  TarnPatternAnalyzer reference;
  ASSERT_EQ(0, reference.build(kPrevious, false));
  const Answers previous = answers(reference);
  ASSERT_EQ(0, reference.build(kDocument, false));
  const Answers fresh = answers(reference);
  ASSERT_NE(previous, fresh);
  walk("build", [&](long n, bool sticky) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(kPrevious, false));
    ASSERT_EQ(previous, answers(analyzer));
    const long live = hook.live;
    arm(n, sticky);
    const int result = analyzer.build(kDocument, false);
    const long failures = disarm();
    if (result == 0) {
      // Only freezing may fail without failing the build: the machine then
      // stays online and answers the same.
      EXPECT_EQ(fresh, answers(analyzer));
      return;
    }
    ASSERT_NE(0, failures);
    ASSERT_EQ(tpa::error::TPA_ERROR_OOM, result);
    EXPECT_STREQ("tarn_patteren_analyzer.so", lastLog.tag);
    EXPECT_EQ(ANDROID_LOG_ERROR, lastLog.priority);
    EXPECT_EQ(0, std::strncmp("[BUILDER] ", lastLog.text, 10)) << lastLog.text;
    EXPECT_LE(hook.live, live);  // the old caches were emptied; nothing new is held
    EXPECT_EQ(previous, answers(analyzer));
    ASSERT_EQ(0, analyzer.build(kDocument, false));
    EXPECT_EQ(fresh, answers(analyzer));
  });
}

TEST_F(AllocFailure, QueriesAnswerFromTheAutomataWhenCachesCannotGrow) {
  TarnPatternAnalyzer reference;
  ASSERT_EQ(0, reference.build(kDocument, false));
  const Answers fresh = answers(reference);
  walk("queries", [&](long n, bool sticky) {
    TarnPatternAnalyzer analyzer;
    ASSERT_EQ(0, analyzer.build(kDocument, false));
    arm(n, sticky);
    // Twice: the second round is answered from the caches and the memo.
    const Answers first = answers(analyzer), second = answers(analyzer);
    disarm();
    EXPECT_EQ(fresh, first);
    EXPECT_EQ(fresh, second);
    EXPECT_EQ(fresh, answers(analyzer));
  });
}

// A machine whose construction threw for want of memory answers no lookup:
// it lacks its automaton or its cache (and then takes no key either), or
// the cache lacks its sentinels.
TEST_F(AllocFailure, MachineWhoseConstructionThrewRefusesKeysAndLookups) {
  walk("machine", [](long n, bool sticky) {
    tpa::machine::KeyedMachine machine;
    bool threw = false;
    arm(n, sticky);
    try {
      machine.construct(64, 4);
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    disarm();
    tpa::machine::KeyedMachine::StateValue out;
    int matched = 0;
    if (threw) {
      EXPECT_EQ(tpa::error::TPA_ERROR_OOM,
                machine.findFull({"#a$", tpa::machine::kFullKey}, out, matched));
    }
    if (machine.automaton() == nullptr || machine.cache() == nullptr) {
      EXPECT_EQ(tpa::error::TPA_ERROR_OOM, machine.put({"#a$", 0}, 1));
    }
  });
}

}  // namespace
