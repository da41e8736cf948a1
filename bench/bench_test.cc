// Tests of the benchmark's own parts: the workload generator and the peers'
// shared weighing.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "hash_matcher.h"
#include "marisa_matcher.h"
#include "parser/json_parser.h"
#include "peer_common.h"
#include "workload.h"

namespace tpa::bench {
namespace {

TEST(Workload, SameSeedSameDocumentAndQueries) {
  const RuleSet a = generateRules(7, 2000), b = generateRules(7, 2000);
  EXPECT_EQ(toJson(a), toJson(b));
  EXPECT_NE(toJson(a), toJson(generateRules(8, 2000)));
  const QueryStream qa = distinctQueries(a, 9, 500), qb = distinctQueries(b, 9, 500);
  ASSERT_EQ(qa.destinations, qb.destinations);
  EXPECT_EQ(toJson(a), toJson(fromJson(toJson(a))));  // what the command-line peers read
}

TEST(Workload, MixOfDestinationKindsIsAsAdvertised) {
  const RuleSet r = generateRules(1, 20000);
  int kinds[kDestKinds] = {};
  for (const Entry& e : r.entries) ++kinds[static_cast<int>(e.kind)];
  const double n = static_cast<double>(r.entries.size());
  EXPECT_NEAR(kinds[static_cast<int>(DestKind::kDomain)] / n, 0.60, 0.03);
  EXPECT_NEAR(kinds[static_cast<int>(DestKind::kWildcard)] / n, 0.20, 0.02);
  const int addresses = kinds[2] + kinds[3] + kinds[4] + kinds[5];
  EXPECT_NEAR(addresses / n, 0.20, 0.02);
  EXPECT_EQ(r.destinations, r.entries.size());
  EXPECT_GE(r.entries.size(), 20000u);
}

TEST(Workload, EveryValueIsOneTheReaderTakesAsIs) {
  const RuleSet r = generateRules(3, 5000);
  for (const DocumentRule& rule : r.rules) {
    EXPECT_FALSE(rule.include.empty());
    EXPECT_FALSE(rule.exclude.empty());
    for (const auto* list : {&rule.apps, &rule.include, &rule.exclude}) {
      for (const std::string& v : *list) {
        // ':' (IPv6) is harmless: a closing quote drops the value it opened.
        EXPECT_EQ(v.find_first_of(",\"[]{}"), std::string::npos) << v;
        EXPECT_NE(v.back(), '/') << v;
      }
    }
  }
}

TEST(Workload, DocumentReadsIntoOneRulePerSpec) {
  const RuleSet r = generateRules(4, 3000);
  parser::JsonParser parser;
  ASSERT_EQ(parser.parse(toJson(r), false), 0);
  ASSERT_EQ(parser.getRules().size(), r.rules.size());
  for (std::size_t i = 0; i < r.rules.size(); ++i) {
    EXPECT_EQ(parser.getRules()[i].id, r.rules[i].id);
    EXPECT_EQ(parser.getRules()[i].includeList.size(), r.rules[i].include.size());
  }
}

TEST(Workload, RepeatedStreamUsesOnlyItsHotPairs) {
  const RuleSet r = generateRules(5, 1000);
  const QueryStream s = repeatedQueries(r, 6, 5000, 12);
  std::set<std::pair<std::uint32_t, std::uint32_t>> pairs;
  for (const Query& q : s.queries) pairs.insert({q.app, q.destination});
  EXPECT_LE(pairs.size(), 12u);
  EXPECT_EQ(s.queries.size(), 5000u);
}

TEST(Workload, HitTargetsHitAndMissesMiss) {
  const RuleSet r = generateRules(11, 5000);
  HashMatcher hash;
  hash.build(r);
  const QueryStream s = distinctQueries(r, 12, 4000);
  int found = 0, hits = 0;
  for (const Query& q : s.queries) {
    const Answer a = hash.query(s.apps[q.app], s.destinations[q.destination]);
    if (q.target == Target::kNothing) {
      EXPECT_EQ(a.value, -1) << s.destinations[q.destination];
    } else {
      ++hits;
      found += a.value != -1;
    }
  }
  // A hit aimed at a per-application rule but asked for another application
  // falls back to rule 0 and usually finds nothing there.
  EXPECT_GT(found, hits * 8 / 10);
}

TEST(Rng, PickFollowsTheWeights) {
  Rng rng(1);
  int counts[3] = {};
  for (int i = 0; i < 30000; ++i) ++counts[rng.pick<int>({{1, 0}, {2, 1}, {7, 2}})];
  EXPECT_NEAR(counts[0] / 30000.0, 0.1, 0.01);
  EXPECT_NEAR(counts[1] / 30000.0, 0.2, 0.01);
  EXPECT_NEAR(counts[2] / 30000.0, 0.7, 0.01);
}

TEST(Weigh, IncludeWinsTiesAndLongerHitsOnEitherCount) {
  Answer out;
  EXPECT_FALSE(weigh(ListHit{}, ListHit{}, out));
  ASSERT_TRUE(weigh(ListHit{true, 9, 9, 1}, ListHit{true, 9, 9, 2}, out));
  EXPECT_EQ(out, (Answer{1, 1}));
  ASSERT_TRUE(weigh(ListHit{true, 7, 9, 1}, ListHit{true, 9, 9, 2}, out));
  EXPECT_EQ(out, (Answer{0, 2}));
  ASSERT_TRUE(weigh(ListHit{true, 7, 12, 1}, ListHit{true, 9, 9, 2}, out));
  EXPECT_EQ(out, (Answer{1, 1}));
  ASSERT_TRUE(weigh(ListHit{}, ListHit{true, 3, 3, 5}, out));
  EXPECT_EQ(out, (Answer{0, 5}));
}

TEST(Peers, HashAndMarisaAgreeOnEveryQuery) {
  const RuleSet r = generateRules(13, 3000);
  HashMatcher hash;
  MarisaMatcher marisa;
  hash.build(r);
  marisa.build(r);
  const QueryStream s = distinctQueries(r, 14, 5000);
  for (const Query& q : s.queries) {
    const std::string& app = s.apps[q.app];
    const std::string& d = s.destinations[q.destination];
    EXPECT_EQ(hash.query(app, d), marisa.query(app, d)) << app << " " << d;
  }
}

}  // namespace
}  // namespace tpa::bench
