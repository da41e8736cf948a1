// Key framing, then the map's decisions: the example, precedence, addresses,
// networks, wildcards, the fallback, the any-app branch, the trace and the
// memo (against traced queries). That repeated queries allocate nothing is a
// target of the benchmarks (bench/).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "fsa/suffix_automaton.h"
#include "mapper/bit_names.h"
#include "mapper/decision.h"
#include "mapper/decision_maker.h"
#include "mapper/decision_memo.h"
#include "mapper/search_result.h"
#include "mapper/map.h"
#include "mapper/trace.h"
#include "mapper/transform.h"
#include "testing/log_capture.h"

namespace {

using tpa::mapper::Decision;
using tpa::mapper::DomainSearchResult;
using tpa::mapper::Map;
using List = std::vector<std::string>;
const char* const kAnyApp = "#LAMBDA-APP";

// "include 7", "exclude -1": both fields of a decision in one string.
std::string text(const Decision& d) {
  return (d.isInIncludeList() ? "include " : "exclude ") + std::to_string(d.value);
}

// A map with room for everything a test puts.
struct Fixture {
  Map map;
  explicit Fixture(int c = 100) : map(c) { EXPECT_EQ(0, map.construct(4000, 4000, 4000)); }
  void put(int rule, const List& apps, const List& include, const List& exclude, int id) {
    ASSERT_EQ(0, map.put(rule, apps, include, exclude, id));
  }
  std::string ask(const std::string& a, const std::string& d) { return text(map.get(a, d)); }
  void putExample() {  // rule A (1) and rule B (any application)
    put(1, {"com.example.mail"}, {"cdn.shop.test"}, {"ads.other.test"}, 7);
    put(0, {kAnyApp}, {"none.invalid"}, {"ads.shop.test"}, 9);
  }
};

// Key framing, against what a string stream writes: random names of any
// bytes (sentinels included), any rule number, any flag (1 a quarter of the
// time), with the extreme numbers first; the *Into variants write the same
// bytes over a reused buffer; names and wildcard keys read back.
TEST(Transform, MatchesStreamOutputOnRandomInput) {
  std::mt19937 rng(11);
  std::string out = "stale content";
  for (int i = 0; i < 2000; ++i) {
    std::string name(rng() % 12, ' ');
    for (char& ch : name) ch = static_cast<char>(rng() % 256);
    const int rule = i == 0 ? INT_MIN : i == 1 ? INT_MAX : i == 2 ? 0 : static_cast<int>(rng());
    const auto flag = static_cast<std::uint8_t>(rng() % 4 == 0 ? 1 : rng());
    std::ostringstream stream;
    stream << '#' << name << '$' << rule << (flag == 1);
    tpa::mapper::transformDomainInto(out, name, rule, flag);
    ASSERT_EQ(stream.str(), out);
    ASSERT_EQ(out, tpa::mapper::transformDomain(name, rule, flag));
    // A name without the closing character reads back from its key; a
    // wildcard's key is "#*" and the framed rest of its text.
    if (name.find('$') == std::string::npos) {
      ASSERT_EQ(name, tpa::mapper::framedName(out));
    }
    const std::string wildcard = tpa::mapper::transformDomain("*" + name, rule, flag);
    ASSERT_EQ(wildcard, tpa::mapper::wildcardKey(std::string_view(out).substr(1)));
    int read = -1;  // the rule number reads back only as written, and only from 0 up
    ASSERT_EQ(rule >= 0, tpa::mapper::readRuleNumber(std::to_string(rule), read));
    ASSERT_TRUE(rule < 0 || read == rule);
    tpa::mapper::tansformAppInto(out, name);
    ASSERT_EQ("#" + name + "$", out);
    ASSERT_EQ(out, tpa::mapper::tansformApp(name));
  }
}

TEST(Transform, RuleNumbersReadBackOnlyAsWritten) {
  int read = 0;
  for (const char* text : {"", "01", "+1", "-0", "1a", " 1", "2147483648", "99999999999"}) {
    EXPECT_FALSE(tpa::mapper::readRuleNumber(text, read)) << text;
  }
}

TEST(Decision, DefaultIsExcludeAndResultsCompareLengthsNotValues) {
  EXPECT_EQ("exclude -1", text(Decision()));
  EXPECT_TRUE(Decision(3, 2).isInExcludeList());  // anything but 1 is exclude
  const DomainSearchResult a(true, 5, 1, 10);
  for (const auto& [other, eq, gt, lt] :
       {std::tuple{DomainSearchResult(true, 5, 99, 10), true, false, true},  // value ignored
        std::tuple{DomainSearchResult(true, 4, 1, 10), false, true, false},  // longer match
        std::tuple{DomainSearchResult(true, 6, 1, 9), false, true, false},   // longer on one
        std::tuple{DomainSearchResult(true, 6, 1, 11), false, false, true}}) {
    EXPECT_EQ(std::tuple(eq, !eq, gt, lt), std::tuple(a == other, a != other, a > other, a < other))
        << other.matchedLength << "/" << other.storedLength;
  }
}

TEST(Map, ClearCacheAnswersMinusOneAndABareMapNothing) {
  Fixture f;
  f.putExample();
  EXPECT_EQ("include 7", f.ask("com.example.mail", "cdn.shop.test"));
  EXPECT_EQ(-1, f.map.clearCache());  // its answer, although it did clear
  EXPECT_EQ("include 7", f.ask("com.example.mail", "cdn.shop.test"));
  EXPECT_EQ(1u, f.map.includeMachine()->keyed()->cache()->listSize());  // asked again, not remembered
  Map bare(100);
  EXPECT_EQ("exclude -1", text(bare.get("a", "b")));
  EXPECT_EQ(-1, bare.put(1, {"a"}, {}, {}, 1));
}

using Rule = std::tuple<int, List, List, List, int>;  // number, apps, include, exclude, id

// Groups of rules, each in a fresh map, and what they answer: "application destination: answer"
// separated by '|'. Networks come as the rules reader hands them over (010.000.000.000/08).
TEST(Map, DecisionTable) {
  const std::pair<std::vector<Rule>, std::string> groups[] = {
      // include shorter on both counts, longer, alone; equal results go to the include list
      {{{1, {"n"}, {"*.test"}, {"*.b.test"}, 1},
        {2, {"w"}, {"*.b.test"}, {"*.test"}, 2},
        {3, {"app"}, {"x.test"}, {"x.test"}, 5}},
       "n a.b.test: exclude 1|w a.b.test: include 2|n a.c.test: include 1|app x.test: include 5"},
      // a wildcard answers names below it, not itself ('.' is a label boundary); rule 0 is behind
      // every rule; a partial application is no application
      {{{1, {"app"}, {"*.shop.test", "mine.test"}, {}, 4}, {0, {}, {}, {"blocked.test"}, 2}},
       "app cdn.shop.test: include 4|app a.cdn.shop.test: include 4|app shop.test: exclude -1|"
       "app xshop.test: exclude -1|other cdn.shop.test: exclude -1|app mine.test: include 4|"
       "app blocked.test: exclude 2|nobody blocked.test: exclude 2|nobody mine.test: exclude -1|"
       "ap mine.test: exclude -1"},
      {{{1, {"app"}, {"010.000.000.000/08"}, {}, 3}, {2, {"v6"}, {}, {"2001:db8::/32"}, 6}},
       "app 10.1.2.3: include 3|app 10.255.255.254: include 3|app 11.0.0.1: exclude -1|"
       "other 10.1.2.3: exclude -1|v6 2001:db8::1: exclude 6|v6 2001:0db8:ffff::: exclude 6|"
       "v6 2001:db9::1: exclude -1"},
      // addresses match whole in their expanded forms
      {{{1, {"app"}, {"2001:db8::1", "10.1.2.3", "010.001.002.004/32"}, {}, 8}},
       "app 2001:0db8:0:0:0:0:0:1: include 8|app 10.1.2.3: include 8|app 10.1.2.4: include 8"},
      // 10.1.2.3 runs 16 bits into rule 2's network: rule 1's /8 is not tried
      {{{1, {"app"}, {"010.000.000.000/08"}, {}, 1}, {2, {"other"}, {"010.001.000.000/16"}, {}, 2}},
       "app 10.1.2.3: exclude -1|other 10.1.2.3: include 2|app 10.128.0.1: include 1"},
      // a run of one bit is no network, nor is a run of the whole address, nor one that ends
      // where a key does (the "11" of "$11" comes first, so the name "11" is no network here)
      {{{1, {"one"}, {"128.000.000.000/01"}, {}, 1}}, "one 129.0.0.1: exclude -1"},
      {{{1, {"a"}, {"x.t", "11"}, {}, 7}}, "a 192.0.0.1: exclude -1|a 11: include 7"},
      {{{2, {"whole"}, {"010.001.002.000/24", "a01:203::/64"}, {}, 2}},
       "whole 10.1.2.3: exclude -1|whole 10.1.2.200: include 2"},
      // an any-application rule stores under 0 whatever its number, unless it has other apps
      {{{5, {kAnyApp}, {"x.test"}, {}, 1}}, "anyone x.test: include 1"},
      {{{1, {"com.a", kAnyApp}, {"x.test"}, {}, 3}},
       "com.a x.test: include 3|anyone x.test: exclude -1"},
  };
  for (const auto& [rules, asks] : groups) {
    Fixture f;
    for (const auto& [number, apps, include, exclude, id] : rules)
      f.put(number, apps, include, exclude, id);
    std::istringstream in(asks);
    for (std::string ask; std::getline(in, ask, '|');) {
      const std::size_t space = ask.find(' '), colon = ask.rfind(": ");
      const std::string app = ask.substr(0, space), to = ask.substr(space + 1, colon - space - 1);
      EXPECT_EQ(ask.substr(colon + 2), f.ask(app, to)) << app << " " << to;
    }
  }
}

int sizeWithKeys(const List& keys) {
  tpa::fsa::SuffixAutomaton<int> sa;
  sa.construct(4000);
  for (const auto& key : keys) EXPECT_EQ(0, sa.add(key, 0));
  return sa.size();
}

TEST(Map, AnyAppBranchIsLookedUpThroughTheCache) {
  Fixture f, g;
  f.put(0, {kAnyApp}, {}, {}, 2);
  f.put(0, {kAnyApp}, {}, {}, 3);  // the cached "absent" appends it again
  f.map.clearCache();
  f.put(0, {kAnyApp}, {}, {}, 4);  // now found present
  EXPECT_EQ(sizeWithKeys({"##LAMBDA-APP$", "##LAMBDA-APP$"}),
            f.map.appsMachine()->keyed()->automaton()->size());
  g.put(1, {"com.a"}, {}, {}, 1);
  g.put(0, {kAnyApp}, {}, {}, 2);  // "#com.a$" starts with '#': present too
  EXPECT_EQ(sizeWithKeys({"#com.a$"}), g.map.appsMachine()->keyed()->automaton()->size());
}

TEST(Map, FailuresStopThePutWithTheirCodeAndMessages) {
  Map map(100);
  ASSERT_EQ(0, map.construct(0, 0, 0));  // 6 states each
  tpa::testing::LogCapture capture;
  EXPECT_EQ(-2, map.put(0, {kAnyApp}, {"a"}, {}, 1));
  const auto records = capture.records();
  ASSERT_EQ(3u, records.size());
  EXPECT_EQ(0u, records[0].text.rfind("[FATAL] [SA] ", 0));
  EXPECT_EQ("[FATAL] [MAP] could not add anyApp branch in apps machine\n", records[1].text);
  EXPECT_EQ("[FATAL] [MAP] AddAnyApp failed. Could not add any app \n", records[2].text);
  EXPECT_EQ((std::pair<int, std::string>(7, "tarn_patteren_analyzer.so")),
            std::pair(records[2].priority, records[2].tag));
}

// A pair is found under the epoch it was filed under, with its decision,
// and only as the same application and destination.
TEST(DecisionMemo, FindsWhatItRememberedForThatPairAndEpochOnly) {
  using tpa::mapper::Decision;
  using tpa::mapper::DecisionMemo;
  DecisionMemo memo;
  const std::string ab = "ab", c = "c", a = "a", bc = "bc", longName(300, 'x');
  Decision out;
  ASSERT_FALSE(memo.find(1, DecisionMemo::Pair(ab, c), out));
  memo.remember(1, DecisionMemo::Pair(ab, c), Decision(7, tpa::mapper::TPA_DECISION_INCLUDE));
  memo.remember(1, DecisionMemo::Pair(a, longName), Decision(8, tpa::mapper::TPA_DECISION_INCLUDE));
  const struct {
    std::uint64_t epoch;
    const std::string& app;
    const std::string& destination;
    bool found;
  } cases[] = {{1, ab, c, true},
               {2, ab, c, false},
               {1, a, bc, false},
               {1, c, ab, false},
               {1, a, longName, false}};  // too long to be kept
  for (const auto& k : cases) {
    Decision d;
    EXPECT_EQ(k.found, memo.find(k.epoch, DecisionMemo::Pair(k.app, k.destination), d))
        << k.epoch << " " << k.app << " " << k.destination;
    if (k.found) {
      EXPECT_EQ(7, d.value);
    }
  }
  // Several pairs: each found with its own decision.
  std::vector<std::string> names;
  for (int i = 0; i < 4; ++i) names.push_back("n" + std::to_string(i));
  for (int i = 0; i < 4; ++i) {
    memo.remember(3, DecisionMemo::Pair(names[i], c),
                  Decision(i, tpa::mapper::TPA_DECISION_EXCLUDE));
  }
  for (int i = 0; i < 4; ++i) {
    Decision d;
    ASSERT_TRUE(memo.find(3, DecisionMemo::Pair(names[i], c), d)) << i;
    EXPECT_EQ(i, d.value);
  }
}

TEST(Map, TracedQueryBypassesTheMemoAndRecordsTheFallback) {
  Fixture f;
  f.putExample();
  EXPECT_EQ("exclude 9", f.ask("com.example.mail", "ads.shop.test"));  // now in the memo
  tpa::mapper::QueryTrace t;
  EXPECT_EQ("exclude 9", text(f.map.get("com.example.mail", "ads.shop.test", &t)));
  ASSERT_EQ(2u, t.steps.size());  // rule 1 finds nothing, rule 0 the whole key
  EXPECT_EQ(tpa::mapper::MatchKind::kWholeKey, t.steps[1].exclude.match);
  EXPECT_EQ("#ads.shop.test$00", t.steps[1].exclude.key);
}

// Random rules and queries, many repeated: the memo answers as the machines do (traced queries
// on a twin map never use it), across clearCache, set conflicts and the memo's growth, and frozen
// machines as online ones; tiny caches evict at once.
TEST(Map, MemoAnswersAsTheMachines) {
  std::mt19937 rng(11);
  Fixture plain(3), traced(3);
  // Networks, and a name made of bits that a network search can end on.
  const List names = {"a.test",         "b.a.test",       "*.a.test", "10.1.2.3",
                      "010.001.000.000/16", "192.168.0.0/24", "0101",     "c.test"};
  for (int r = 0; r < 8; ++r) {
    const List apps = {"app" + std::to_string(r)}, in = {names[rng() % 8]}, out = {names[r]};
    plain.put(r, apps, in, out, r + 10);
    traced.put(r, apps, in, out, r + 10);
  }
  plain.map.freeze();  // and the frozen machines as the online ones
  for (int i = 0; i < 20000; ++i) {
    const std::string app = "app" + (rng() % 8 ? std::to_string(rng() % 9) : "");  // app1+5=app+15
    const std::string n = std::to_string(rng() % 150);
    const std::string to = rng() % 3 == 0 ? n + ".a.test"
                           : rng() % 2    ? n + ".1.2.3"
                                          : "192.168." + std::to_string(rng() % 3) + "." + n;
    tpa::mapper::QueryTrace t;
    ASSERT_EQ(text(traced.map.get(app, to, &t)), plain.ask(app, to)) << app << " " << to;
    if (i % 5000 == 4999) plain.map.clearCache(), traced.map.clearCache();
  }
}

// The bit-prefix filter against the names listed by hand: the lengths of the kept bit strings
// that are prefixes of an address's bits (2 to size - 1 of them), no more and no fewer. Names
// short and long, sharing their first bits, hundreds of them (the heads refiled).
TEST(BitNames, AgreesWithTheNamesListedByHand) {
  std::mt19937 rng(17);
  int found = 0;
  for (int round = 0; round < 40; ++round) {
    auto bits = [&](std::size_t n) {
      std::string s(n, '0');
      for (char& c : s) c = static_cast<char>('0' + rng() % 2);
      return s;
    };
    tpa::mapper::BitNames names;
    std::vector<std::string> kept;
    const std::string common = bits(20 + rng() % 12);  // many names start alike
    for (int i = static_cast<int>(rng() % (round < 20 ? 20 : 600)); i > 0; --i) {
      std::string name = rng() % 2 ? common.substr(0, rng() % common.size()) : "";
      name += bits(rng() % (rng() % 4 == 0 ? 10 : 80));
      names.add(name);
      if (name.size() >= 2) kept.push_back(name);
      if (i % 7 == 0) names.add(name + "2");  // not a bit string: not kept
    }
    for (int i = 0; i < 300; ++i) {
      std::string q = rng() % 2 ? common.substr(0, rng() % common.size()) : "";
      q += bits(rng() % (i % 3 ? 32 : 128));
      if (i % 5 == 0 && !kept.empty()) q = kept[rng() % kept.size()] + bits(rng() % 20);
      q.resize(std::min<std::size_t>(q.size(), tpa::mapper::BitNames::kMaxBits));
      std::vector<bool> expected(tpa::mapper::BitNames::kMaxBits);
      for (const std::string& k : kept) {
        if (k.size() < q.size() && q.compare(0, k.size(), k) == 0) expected[k.size()] = true;
      }
      const tpa::mapper::BitNames::Lengths lengths = names.prefixLengthsOf(q);
      for (std::size_t length = 0; length < expected.size(); ++length) {
        ASSERT_EQ(expected[length], lengths.has(length)) << q << " " << length;
        found += expected[length];
      }
      ASSERT_EQ(std::find(expected.begin(), expected.end(), true) != expected.end(), lengths.any());
    }
  }
  EXPECT_GT(found, 1000);
}

// Nested networks of both families spread over rules and lists, addresses in and near them: the
// map's searches (which skip the walk of the bits unless a network the address starts with is
// stored under the rule) decide as a decision maker told no bit names, which always walks.
TEST(Map, NetworkFilterDecidesAsTheFullSearch) {
  std::mt19937 rng(23);
  const List networks = {"10.0.0.0/8", "10.1.0.0/16",   "10.1.2.0/24",     "10.1.2.128/25",
                         "10.1.2.3",   "2001:db8::/32", "2001:db8:1::/48", "2001:db8:1:2::/64",
                         "0101",       "192.168.0.0/16"};
  for (int round = 0; round < 10; ++round) {
    Fixture f(3);
    for (int r = 0; r < 6; ++r) {
      List in, out;
      for (const std::string& n : networks) {
        if (rng() % 4 == 0) in.push_back(n);
        if (rng() % 4 == 0) out.push_back(n);
      }
      f.put(r, {r == 0 ? kAnyApp : "app" + std::to_string(r)}, in, out, r + 10);
    }
    f.map.freeze();
    // Frozen machines are only read.
    const auto machine = [](const Map::Machine* m) { return const_cast<Map::Machine*>(m); };
    tpa::mapper::MapDecisionMaker full(*machine(f.map.appsMachine()),
                                       *machine(f.map.includeMachine()),
                                       *machine(f.map.excludeMachine()));
    for (int i = 0; i < 2000; ++i) {
      const std::string app = "app" + std::to_string(rng() % 7);
      const auto part = [&] { return std::to_string(rng() % 4 ? rng() % 4 : rng() % 256); };
      const std::string to =
          rng() % 2 ? (rng() % 3 ? "10." : "192.168.") + part() + "." + part() + "." + part()
                    : "2001:db8:" + part() + ":" + part() + "::" + part();
      ASSERT_EQ(text(full.decide(app, to)), f.ask(app, to)) << app << " " << to;
    }
  }
}

// The caches of a map's three machines, most recently used first.
std::string caches(const Map& map) {
  std::string out;
  for (const Map::Machine* m : {map.appsMachine(), map.includeMachine(), map.excludeMachine()}) {
    m->keyed()->cache()->forEach(
        [&out](const auto& e) { out += e.key + "/" + std::to_string(e.subKey) + " "; });
    out += "| ";
  }
  return out;
}

// Online machines with small caches: a traced query reads them as an untraced
// one does (the same searches, in the same order, none repeated), so both
// leave the same entries in the same order. A put after the first query keeps
// the memo out of the untraced queries.
TEST(Map, TracedQueryLeavesTheCachesAsAnUntracedOne) {
  std::mt19937 rng(3);
  Fixture plain(5), traced(5);
  const List names = {"a.test", "*.a.test", "10.1.0.0/16", "2001:db8::/32", "0101"};
  for (int r = 1; r <= 4; ++r) {
    for (Fixture* f : {&plain, &traced}) {
      f->put(r % 3, {"app" + std::to_string(r)}, {names[r % 5]}, {names[(r + 2) % 5]}, r);
      if (r == 3) (void)f->ask("app1", "x.test");
    }
  }
  for (int i = 0; i < 400; ++i) {
    const std::string n = std::to_string(rng() % 20);
    const std::string to = i % 3 == 0   ? n + ".a.test"
                           : i % 3 == 1 ? "10.1." + n + ".1"
                                        : "2001:db8::" + n;
    const std::string app = "app" + std::to_string(rng() % 6);
    tpa::mapper::QueryTrace t;
    ASSERT_EQ(plain.ask(app, to), text(traced.map.get(app, to, &t)));
    ASSERT_EQ(caches(plain.map), caches(traced.map)) << app << " " << to;
  }
}

TEST(Map, PutAfterAQueryStopsTheMemoUntilTheCachesAreCleared) {
  Fixture f(1);  // caches of one entry: answers are asked again at once
  f.put(1, {"app"}, {"x.test"}, {}, 1);
  EXPECT_EQ("exclude -1", f.ask("app", "y.test"));
  f.put(1, {"app"}, {"y.test"}, {}, 5);
  EXPECT_EQ("include 5", f.ask("app", "y.test"));  // the memo would say exclude -1
}

// A thread's memo holds decisions of every map it asks: each map answers with
// its own, also a map made where a freed one was.
TEST(Map, EachMapsMemoAnswersForThatMapAlone) {
  auto first = std::make_unique<Fixture>(), second = std::make_unique<Fixture>();
  first->put(1, {"app"}, {"x.test"}, {}, 1);
  second->put(1, {"app"}, {}, {"x.test"}, 2);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ("include 1", first->ask("app", "x.test"));
    EXPECT_EQ("exclude 2", second->ask("app", "x.test"));
  }
  first.reset();
  first = std::make_unique<Fixture>();
  first->put(1, {"app"}, {"y.test"}, {}, 3);
  EXPECT_EQ("exclude -1", first->ask("app", "x.test"));
  EXPECT_EQ("exclude 2", second->ask("app", "x.test"));
}

// A shared map (its machines online, so that their caches would be written)
// asked by four threads at once while another clears its caches: every answer
// is the one a single thread gets.
TEST(Concurrency, SharedMapAnswersManyThreadsAsOne) {
  std::mt19937 rng(5);
  Fixture f(4);
  const List names = {"a.test", "*.a.test", "10.1.0.0/16", "2001:db8::/32", "c.test"};
  for (int r = 1; r <= 6; ++r) {
    f.put(r % 3, {"app" + std::to_string(r)}, {names[r % 5]}, {names[(r + 2) % 5]}, r);
  }
  std::vector<std::pair<std::string, std::string>> queries;
  std::vector<std::string> expected;
  for (int i = 0; i < 64; ++i) {
    const std::string n = std::to_string(rng() % 40);
    const std::string to = i % 3 == 0   ? n + ".a.test"
                           : i % 3 == 1 ? "10.1." + n + ".1"
                                        : "2001:db8::" + n;
    queries.emplace_back("app" + std::to_string(rng() % 8), to);
    tpa::mapper::QueryTrace t;
    expected.push_back(text(f.map.get(queries.back().first, queries.back().second, &t)));
  }
  f.map.clearCache();
  f.map.shareBetweenThreads();
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        const std::size_t q = (i * 7 + t) % queries.size();
        if (f.ask(queries[q].first, queries[q].second) != expected[q]) ++wrong;
      }
    });
  }
  for (int i = 0; i < 50; ++i) (void)f.map.clearCache();
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
}

}  // namespace
