// The compiled map and its decisions: the two-rule example end to end,
// include/exclude precedence, network prefixes, wildcards, the fallback to
// the any-application rules, the any-application branch, the query trace,
// and a query answered from the caches allocating nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "api/constants.h"
#include "fsa/suffix_automaton.h"
#include "mapper/decision.h"
#include "mapper/map.h"
#include "mapper/trace.h"
#include "testing/log_capture.h"

// Every allocation of this test program is counted.
namespace {
std::atomic<long> allocations{0};
// Out of line, so that the compiler does not pair an inlined free with new.
[[gnu::noinline]] void release(void* p) noexcept { std::free(p); }
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }

namespace {

using tpa::mapper::Decision;
using tpa::mapper::DomainSearchResult;
using tpa::mapper::Map;
using tpa::mapper::MatchKind;
using tpa::mapper::QueryTrace;
using tpa::mapper::Verdict;
using tpa::testing::LogCapture;
using tpa::testing::LogRecord;
using List = std::vector<std::string>;

constexpr int kInclude = 1;
constexpr int kExclude = 0;
const char* const kAnyApp = "#LAMBDA-APP";

// A map with room for everything a test puts.
struct Fixture {
  Map map{100};
  Fixture() { EXPECT_EQ(0, map.construct(4000, 4000, 4000)); }
  void put(int rule, const List& apps, const List& include, const List& exclude, int id) {
    ASSERT_EQ(0, map.put(rule, apps, include, exclude, id));
  }
  // "include 7", "exclude -1": both fields of the decision in one string.
  std::string ask(const std::string& app, const std::string& destination) {
    const Decision d = map.get(app, destination);
    return (d.decision == kInclude   ? "include "
            : d.decision == kExclude ? "exclude "
                                     : "? ") +
           std::to_string(d.value);
  }
};

// The rules of the introductory example: A (rule 1) and B (any application).
void putExample(Fixture& f) {
  f.put(1, {"com.example.mail"}, {"cdn.shop.test"}, {"ads.other.test"}, 7);
  f.put(0, {kAnyApp}, {"none.invalid"}, {"ads.shop.test"}, 9);
}

TEST(Decision, DefaultIsExcludeWithoutRule) {
  const Decision d;
  EXPECT_EQ(-1, d.value);
  EXPECT_EQ(0, d.decision);
  EXPECT_TRUE(d.isInExcludeList());
  EXPECT_FALSE(d.isInIncludeList());
  EXPECT_TRUE(Decision(3, 1).isInIncludeList());
  EXPECT_TRUE(Decision(3, 2).isInExcludeList());  // anything but 1 is exclude
  Decision copy(3, 1);
  const Decision& alias = copy;
  copy = alias;
  EXPECT_EQ(3, copy.value);
  EXPECT_EQ(1, copy.decision);
}

TEST(DomainSearchResult, OperatorsCompareLengthsNotValues) {
  const DomainSearchResult a(true, 5, 1, 10);
  EXPECT_TRUE(a == DomainSearchResult(true, 5, 99, 10));  // value not compared
  EXPECT_FALSE(a != DomainSearchResult(true, 5, 99, 10));
  EXPECT_TRUE(a != DomainSearchResult(false, 5, 1, 10));
  const struct {
    DomainSearchResult other;
    bool greater, less;
  } cases[] = {
      {DomainSearchResult(true, 5, 1, 10), false, true},  // equal: < holds too
      {DomainSearchResult(true, 4, 1, 10), true, false},  // longer match
      {DomainSearchResult(true, 5, 1, 9), true, false},   // longer stored key
      {DomainSearchResult(true, 6, 1, 9), true, false},   // longer on one count
      {DomainSearchResult(true, 6, 1, 11), false, true},  // shorter on both
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.greater, a > c.other) << c.other.matchedLength << "/" << c.other.storedLength;
    EXPECT_EQ(c.less, a < c.other) << c.other.matchedLength << "/" << c.other.storedLength;
  }
  const DomainSearchResult none;
  EXPECT_FALSE(none.found);
  EXPECT_EQ(0, none.matchedLength);
  EXPECT_EQ(-1, none.value);
  EXPECT_EQ(0, none.storedLength);
}

TEST(Map, TwoRuleExampleEndToEnd) {
  Fixture f;
  putExample(f);
  EXPECT_EQ("include 7", f.ask("com.example.mail", "cdn.shop.test"));
  EXPECT_EQ("exclude 9", f.ask("com.example.mail", "ads.shop.test"));  // via rule 0
  EXPECT_EQ("exclude -1", f.ask("org.unknown", "unlisted.test"));
  EXPECT_EQ("exclude 7", f.ask("com.example.mail", "ads.other.test"));
  EXPECT_EQ("include 9", f.ask("org.unknown", "none.invalid"));
  EXPECT_EQ("exclude -1", f.ask("org.unknown", "cdn.shop.test"));  // rule 1's only
}

TEST(Map, WithoutMachinesEverythingIsDefaultOrMissing) {
  Map map(100);
  const Decision d = map.get("a", "b");
  EXPECT_EQ(-1, d.value);
  EXPECT_EQ(0, d.decision);
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, map.put(1, {"a"}, {}, {}, 1));
  EXPECT_EQ(-1, map.clearCache());
}

TEST(Map, ClearCacheAnswersMinusOneAndKeepsTheRules) {
  Fixture f;
  putExample(f);
  EXPECT_EQ("include 7", f.ask("com.example.mail", "cdn.shop.test"));
  EXPECT_EQ(-1, f.map.clearCache());
  EXPECT_EQ(0u, f.map.includeMachine()->cache()->listSize());
  EXPECT_EQ("include 7", f.ask("com.example.mail", "cdn.shop.test"));
  EXPECT_EQ("exclude 9", f.ask("com.example.mail", "ads.shop.test"));
}

TEST(Map, EqualResultsGoToTheIncludeList) {
  Fixture f;
  f.put(1, {"app"}, {"x.test"}, {"x.test"}, 5);
  EXPECT_EQ("include 5", f.ask("app", "x.test"));
}

TEST(Map, ShorterOnBothCountsLosesLongerOnEitherWins) {
  Fixture f;
  f.put(1, {"narrow"}, {"*.test"}, {"*.b.test"}, 1);
  f.put(2, {"wide"}, {"*.b.test"}, {"*.test"}, 2);
  EXPECT_EQ("exclude 1", f.ask("narrow", "a.b.test"));
  EXPECT_EQ("include 2", f.ask("wide", "a.b.test"));
  EXPECT_EQ("include 1", f.ask("narrow", "a.c.test"));  // only the include list
}

TEST(Map, WildcardAnswersNamesBelowItNotItself) {
  Fixture f;
  f.put(1, {"app"}, {"*.shop.test"}, {}, 4);
  EXPECT_EQ("include 4", f.ask("app", "cdn.shop.test"));
  EXPECT_EQ("include 4", f.ask("app", "a.cdn.shop.test"));
  EXPECT_EQ("exclude -1", f.ask("app", "shop.test"));
  EXPECT_EQ("exclude -1", f.ask("app", "xshop.test"));       // the '.' is a label boundary
  EXPECT_EQ("exclude -1", f.ask("other", "cdn.shop.test"));  // rule 1 only
}

TEST(Map, IPv4NetworkMatchesAddressesInsideIt) {
  Fixture f;
  // "10.0.0.0/8" as the rules reader hands it over.
  f.put(1, {"app"}, {"010.000.000.000/08"}, {}, 3);
  EXPECT_EQ("include 3", f.ask("app", "10.1.2.3"));
  EXPECT_EQ("include 3", f.ask("app", "10.255.255.254"));
  EXPECT_EQ("exclude -1", f.ask("app", "11.0.0.1"));
  EXPECT_EQ("exclude -1", f.ask("other", "10.1.2.3"));
}

TEST(Map, IPv6NetworkMatchesAddressesInsideIt) {
  Fixture f;
  f.put(1, {"app"}, {}, {"2001:db8::/32"}, 6);
  EXPECT_EQ("exclude 6", f.ask("app", "2001:db8::1"));
  EXPECT_EQ("exclude 6", f.ask("app", "2001:0db8:ffff::"));
  EXPECT_EQ("exclude -1", f.ask("app", "2001:db9::1"));
}

TEST(Map, AddressesMatchWholeInTheirExpandedForms) {
  Fixture f;
  f.put(1, {"app"}, {"2001:db8::1", "10.1.2.3", "010.001.002.004/32"}, {}, 8);
  EXPECT_EQ("include 8", f.ask("app", "2001:0db8:0:0:0:0:0:1"));
  EXPECT_EQ("include 8", f.ask("app", "10.1.2.3"));
  EXPECT_EQ("include 8", f.ask("app", "10.1.2.4"));
  const auto* automaton = f.map.includeMachine()->automaton();
  tpa::fsa::SAStateValue<int> v;
  for (const std::string key : {"#2001:0db8:0000:0000:0000:0000:0000:0001$11",
                                "#010.001.002.003$11", "#010.001.002.004$11"}) {
    EXPECT_EQ(static_cast<int>(key.size()), automaton->tryFindFull(key, v)) << key;
    EXPECT_EQ(static_cast<int>(key.size()), v.storedKeyLength()) << key;
  }
}

TEST(Map, OnlyTheLongestRunOfBitsIsTriedAsNetwork) {
  Fixture f;
  f.put(1, {"app"}, {"010.000.000.000/08"}, {}, 1);
  f.put(2, {"other"}, {"010.001.000.000/16"}, {}, 2);
  // 10.1.2.3 runs 16 bits into rule 2's network; rule 1's /8 is not tried.
  EXPECT_EQ("exclude -1", f.ask("app", "10.1.2.3"));
  EXPECT_EQ("include 2", f.ask("other", "10.1.2.3"));
  EXPECT_EQ("include 1", f.ask("app", "10.128.0.1"));  // leaves rule 2's bits after 8
}

TEST(Map, RunOfOneBitOrTheWholeAddressIsNoNetwork) {
  Fixture f;
  f.put(1, {"one"}, {"128.000.000.000/01"}, {}, 1);
  EXPECT_EQ("exclude -1", f.ask("one", "129.0.0.1"));
  // The first 64 bits of 0a01:0203:: hold all 32 bits of 10.1.2.3.
  f.put(2, {"whole"}, {"010.001.002.000/24", "a01:203::/64"}, {}, 2);
  EXPECT_EQ("exclude -1", f.ask("whole", "10.1.2.3"));
  EXPECT_EQ("include 2", f.ask("whole", "10.1.2.200"));
}

TEST(Map, UnknownApplicationAndUnmatchedRuleFallBackToAnyApplicationRules) {
  Fixture f;
  f.put(1, {"app"}, {"mine.test"}, {}, 1);
  f.put(0, {}, {}, {"blocked.test"}, 2);  // no applications: rule 0
  EXPECT_EQ("include 1", f.ask("app", "mine.test"));
  EXPECT_EQ("exclude 2", f.ask("app", "blocked.test"));
  EXPECT_EQ("exclude 2", f.ask("nobody", "blocked.test"));
  EXPECT_EQ("exclude -1", f.ask("nobody", "mine.test"));
  EXPECT_EQ("exclude -1", f.ask("ap", "mine.test"));  // a partial app key is no app
}

TEST(Map, OnlyAnyAppRuleStoresDomainsUnderZeroWhateverItsNumber) {
  Fixture f;
  f.put(5, {kAnyApp}, {"x.test"}, {}, 1);
  EXPECT_EQ("include 1", f.ask("anyone", "x.test"));
}

TEST(Map, AnyAppAmongOthersKeepsTheRuleNumber) {
  Fixture f;
  f.put(1, {"com.a", kAnyApp}, {"x.test"}, {}, 3);
  EXPECT_EQ("include 3", f.ask("com.a", "x.test"));
  EXPECT_EQ("exclude -1", f.ask("anyone", "x.test"));
}

// The branch lookup reads from the cache like any other lookup.
int appsSize(const Map& map) {
  int size = -1;
  EXPECT_EQ(0, map.appsMachine()->size(size));
  return size;
}
int sizeWithKeys(const List& keys) {
  tpa::fsa::SuffixAutomaton<int> sa;
  sa.construct(4000);
  for (const auto& key : keys) EXPECT_EQ(0, sa.add(key, 0));
  return sa.size();
}

TEST(Map, AnyAppBranchCountsAsPresentOnceAnyApplicationIsStored) {
  Fixture f;
  f.put(1, {"com.a"}, {}, {}, 1);
  f.put(0, {kAnyApp}, {}, {}, 2);
  f.put(0, {kAnyApp}, {}, {}, 3);
  // Any stored application key starts with '#': the branch reads as present.
  EXPECT_EQ(sizeWithKeys({"#com.a$"}), appsSize(f.map));
}

TEST(Map, AnyAppBranchAbsentAnswerStaysCached) {
  Fixture f;
  f.put(0, {kAnyApp}, {}, {}, 2);
  EXPECT_EQ(sizeWithKeys({"##LAMBDA-APP$"}), appsSize(f.map));
  // The second rule's lookup hits the cached "absent" and appends it again.
  f.put(0, {kAnyApp}, {}, {}, 3);
  EXPECT_EQ(sizeWithKeys({"##LAMBDA-APP$", "##LAMBDA-APP$"}), appsSize(f.map));
  // With the cache emptied in between, the third finds it present.
  f.map.clearCache();
  f.put(0, {kAnyApp}, {}, {}, 4);
  EXPECT_EQ(sizeWithKeys({"##LAMBDA-APP$", "##LAMBDA-APP$"}), appsSize(f.map));
}

TEST(Map, FullAppsAutomatonFailsTheBranchWithItsMessages) {
  Map map(100);
  ASSERT_EQ(0, map.construct(0, 0, 0));  // 6 states each
  LogCapture capture;
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, map.put(0, {kAnyApp}, {"a"}, {}, 1));
  const auto records = capture.records();
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(0u, records[0].text.rfind("[FATAL] [SA] ", 0)) << records[0].text;
  EXPECT_EQ((LogRecord{7, "tarn_patteren_analyzer.so",
                       "[FATAL] [MAP] could not add anyApp branch in apps machine\n"}),
            records[1]);
  EXPECT_EQ((LogRecord{7, "tarn_patteren_analyzer.so",
                       "[FATAL] [MAP] AddAnyApp failed. Could not add any app \n"}),
            records[2]);
}

TEST(Map, FailingKeyStopsThePutWithItsCode) {
  Map map(100);
  ASSERT_EQ(0, map.construct(100, 4, 100));  // include: 8 states
  LogCapture capture;
  EXPECT_EQ(-2, map.put(1, {"app"}, {"long.name.test"}, {"never.test"}, 1));
  EXPECT_EQ(1u, capture.records().size());
  EXPECT_EQ(0, map.put(2, {"app2"}, {}, {}, 2));  // empty lists store nothing
  int size = -1;
  ASSERT_EQ(0, map.excludeMachine()->size(size));
  EXPECT_EQ(0, size);
}

TEST(Map, TraceRecordsEveryStepOfTheFallback) {
  Fixture f;
  putExample(f);
  QueryTrace trace;
  const Decision d = f.map.get("com.example.mail", "ads.shop.test", &trace);
  EXPECT_EQ(9, d.value);
  EXPECT_EQ("#com.example.mail$", trace.appKey);
  EXPECT_EQ(18, trace.app.matched);
  EXPECT_EQ(18, trace.app.storedLength);
  EXPECT_EQ(1, trace.app.value);
  EXPECT_EQ(1, trace.rule);
  EXPECT_FALSE(trace.appFellToZero);
  ASSERT_EQ(2u, trace.steps.size());
  EXPECT_EQ(1, trace.steps[0].rule);
  EXPECT_EQ(Verdict::kNeither, trace.steps[0].verdict);
  EXPECT_EQ("#ads.shop.test$11", trace.steps[0].include.key);
  EXPECT_TRUE(trace.steps[0].include.partial.attempted);
  EXPECT_EQ(0, trace.steps[1].rule);
  EXPECT_EQ(Verdict::kOnlyExclude, trace.steps[1].verdict);
  EXPECT_EQ(MatchKind::kWholeKey, trace.steps[1].exclude.match);
  EXPECT_EQ("#ads.shop.test$00", trace.steps[1].exclude.key);
  EXPECT_FALSE(trace.steps[1].exclude.partial.attempted);
  EXPECT_EQ(9, trace.value);
  EXPECT_EQ(0, trace.decision);
}

TEST(Map, TraceShowsTheNetworkPrefixRun) {
  Fixture f;
  f.put(1, {"app"}, {"010.000.000.000/08"}, {}, 3);
  QueryTrace trace;
  f.map.get("app", "10.1.2.3", &trace);
  ASSERT_EQ(1u, trace.steps.size());
  const auto& in = trace.steps[0].include;
  EXPECT_EQ("010.001.002.003", trace.destination);
  EXPECT_TRUE(in.address);
  EXPECT_EQ("00001010000000010000001000000011", in.bits);
  EXPECT_EQ(8, in.bitsSearch.matched);
  EXPECT_EQ("#00001010$11", in.prefixKey);
  EXPECT_EQ(MatchKind::kNetworkPrefix, in.match);
  EXPECT_EQ(12, in.matchedLength);
  EXPECT_EQ(Verdict::kOnlyInclude, trace.steps[0].verdict);
}

TEST(Map, TraceOfAnUnknownApplicationStartsAtRuleZero) {
  Fixture f;
  putExample(f);
  QueryTrace trace;
  f.map.get("org.unknown", "unlisted.test", &trace);
  EXPECT_TRUE(trace.appFellToZero);
  EXPECT_EQ(1, trace.app.matched);  // only the leading '#'
  EXPECT_EQ(0, trace.rule);
  ASSERT_EQ(1u, trace.steps.size());  // rule 0 has nothing to fall back to
  EXPECT_EQ(Verdict::kNeither, trace.steps[0].verdict);
  EXPECT_FALSE(trace.steps[0].include.address);
  EXPECT_FALSE(trace.steps[0].include.bitsSearch.attempted);
  EXPECT_EQ(-1, trace.value);
}

// What the caches hold, machine by machine, most recent first.
std::vector<std::pair<std::string, int>> cached(const Map& map) {
  std::vector<std::pair<std::string, int>> entries;
  for (const auto* m : {map.appsMachine(), map.includeMachine(), map.excludeMachine()}) {
    m->cache()->forEach([&](const auto& n) { entries.emplace_back(n.key, n.subKey); });
  }
  return entries;
}

TEST(Map, TracingChangesNothingAQueryDoes) {
  Fixture traced, plain;
  putExample(traced);
  putExample(plain);
  for (const auto& [app, destination] :
       std::vector<std::pair<std::string, std::string>>{{"com.example.mail", "cdn.shop.test"},
                                                        {"com.example.mail", "10.1.2.3"},
                                                        {"x", "2001:db8::1"},
                                                        {"com.example.mail", "ads.shop.test"}}) {
    QueryTrace trace;
    const Decision a = traced.map.get(app, destination, &trace);
    const Decision b = plain.map.get(app, destination);
    EXPECT_EQ(b.value, a.value);
    EXPECT_EQ(b.decision, a.decision);
  }
  EXPECT_EQ(cached(plain.map), cached(traced.map));
}

TEST(Map, QueryAnsweredFromTheCachesAllocatesNothing) {
  Fixture f;
  putExample(f);
  f.put(2, {"net.app"}, {"010.000.000.000/08", "*.wild.test"}, {"2001:db8::/32"}, 5);
  const std::vector<std::pair<std::string, std::string>> queries = {
      {"com.example.mail", "cdn.shop.test"},
      {"com.example.mail", "ads.shop.test"},
      {"unknown.app", "unlisted.test"},
      {"net.app", "10.9.8.7"},
      {"net.app", "2001:db8::42"},
      {"net.app", "a.wild.test"},
      {"net.app", "a-rather-long-destination-name.example.test"}};
  const long cold = allocations.load();
  for (const auto& [app, destination] : queries) f.map.get(app, destination);  // fill caches
  EXPECT_LT(cold, allocations.load());  // the counter does count
  long total = 0;
  for (const auto& [app, destination] : queries) {
    const long before = allocations.load();
    const Decision d = f.map.get(app, destination);
    total += allocations.load() - before;
    EXPECT_NE(-2, d.value);
  }
  EXPECT_EQ(0, total);
  EXPECT_EQ("include 5", f.ask("net.app", "10.9.8.7"));
  EXPECT_EQ("exclude 5", f.ask("net.app", "2001:db8::42"));
  EXPECT_EQ("include 5", f.ask("net.app", "a.wild.test"));
}

}  // namespace
