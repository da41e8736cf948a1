// Tests of the benchmark's own parts: the workload generator, the peers
// against the library, and the peers' tables and line I/O against models.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "hash_matcher.h"
#include "marisa_matcher.h"
#include "parser/json_parser.h"
#include "peer_common.h"
#include "peer_io.h"
#include "peer_tables.h"
#include "tpa/api/analyzer.h"
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
  hash.build(toJson(r));
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

// The library's answer, as `tpa query` prints it.
Answer askLibrary(const api::Builder& b, const std::string& app, const std::string& d) {
  int value = -1;
  const int decision = b.query(app, d, value);
  return Answer{decision, value};
}

// The library and both peers, built from one document.
struct Matchers {
  explicit Matchers(const std::string& json) : built(library.build(json, false) == 0) {
    hash.build(json);
    marisa.build(json);
  }
  api::Builder library;
  bool built;
  HashMatcher hash;
  MarisaMatcher marisa;
};

TEST(Peers, AnswerEveryWorkloadQueryAsTheLibraryDoes) {
  const RuleSet r = generateRules(13, 3000);
  Matchers m(toJson(r));
  ASSERT_TRUE(m.built);
  std::map<int, int> decisions;  // the answers must not all be the default
  for (const QueryStream& s : {distinctQueries(r, 14, 6000), repeatedQueries(r, 15, 500)}) {
    for (const Query& q : s.queries) {
      const std::string& app = s.apps[q.app];
      const std::string& d = s.destinations[q.destination];
      const Answer expected = askLibrary(m.library, app, d);
      ++decisions[expected.value == -1 ? -1 : expected.decision];
      ASSERT_EQ(m.hash.query(app, d), expected) << app << " " << d;
      ASSERT_EQ(m.marisa.query(app, d), expected) << app << " " << d;
    }
  }
  EXPECT_GT(decisions[1], 1000);
  EXPECT_GT(decisions[0], 300);
  EXPECT_GT(decisions[-1], 1000);
}

// The cases where matching could go wrong, each answered as the library
// answers it: wildcards by parent suffix only, the most specific hit first,
// include winning a tie, and the fallback to the any-application rules. (An
// address inside a network of the same rule is outside the region where the
// library's answer is the natural one: the workload never asks that.)
TEST(Peers, MostSpecificHitWinsThenTheAnyApplicationRules) {
  const std::string json = R"([
{"id": "10", "match_apps": ["app.one"], "include": ["*.b.example", "1.2.3.0/28"], "exclude": ["deep.b.example", "1.2.4.4", "2001:db8::/48"]},
{"id": "20", "include": ["only.any.test", "*.wide.test", "2001:db8::/32"], "exclude": ["x.b.example", "9.9.9.9"]},
{"id": "30", "match_apps": ["app.two"], "include": ["same.test", "*.b.example"], "exclude": ["same.test", "*.a.b.example"]}
]
)";
  struct Case {
    const char* app;
    const char* destination;
    Answer expected;
  };
  const Case cases[] = {
      {"app.one", "a.b.example", {1, 10}},            // wildcard
      {"app.one", "z.a.b.example", {1, 10}},          // wildcard, two labels deeper
      {"app.one", "b.example", {0, -1}},              // a wildcard never holds its own name
      {"app.one", "xb.example", {0, -1}},             // nor a name that ends like it
      {"app.one", ".b.example", {1, 10}},             // but an empty first label
      {"app.one", "a.b.example.", {0, -1}},           // a trailing dot is another name
      {"app.one", "deep.b.example", {0, 10}},         // whole name before the wildcard
      {"app.one", "x.deep.b.example", {1, 10}},       // only the wildcard holds it
      {"app.one", "x.b.example", {1, 10}},            // own rule first, then rule 0
      {"other.app", "x.b.example", {0, 20}},          // rule 0 only
      {"app.one", "only.any.test", {1, 20}},          // fallback to rule 0
      {"app.one", "q.wide.test", {1, 20}},            // a rule 0 wildcard
      {"app.one", "1.2.4.4", {0, 10}},                // address
      {"app.one", "1.2.3.9", {1, 10}},                // network
      {"app.one", "1.2.3.16", {0, -1}},               // just past the network
      {"app.one", "9.9.9.9", {0, 20}},                //
      {"app.one", "2001:db8:0:1::5", {0, 10}},        // the longer IPv6 network
      {"app.one", "2001:db8:1::5", {1, 20}},          // rule 0's shorter one
      {"app.one", "2001:0db8:0000:0000::7", {0, 10}},  // another spelling
      {"app.two", "same.test", {1, 30}},              // include wins a tie
      {"app.two", "z.a.b.example", {0, 30}},          // the longer of two wildcards
      {"app.two", "z.b.example", {1, 30}},            //
      {"app.two", "nothing.test", {0, -1}},
  };
  Matchers m(json);
  ASSERT_TRUE(m.built);
  for (const Case& c : cases) {
    EXPECT_EQ(askLibrary(m.library, c.app, c.destination), c.expected) << c.destination;
    EXPECT_EQ(m.hash.query(c.app, c.destination), c.expected) << c.destination;
    EXPECT_EQ(m.marisa.query(c.app, c.destination), c.expected) << c.destination;
  }
}

TEST(QueryParse, AddressesAreWhatInetPtonTakes) {
  Rng rng(21);
  std::vector<std::string> texts = {"1.2.3.4", "255.255.255.255", "256.1.1.1", "01.2.3.4",
                                    "1.2.3",   "1.2.3.4.",        ".1.2.3.4",  "1..2.3",
                                    "0.0.0.0", "1.2.3.4x",        "::1",       "2001:db8::7",
                                    "::ffff:1.2.3.4", "1:2:3:4:5:6:7:8:9", "a.b.c", ""};
  for (int i = 0; i < 20000; ++i) {
    std::string s;
    for (int n = static_cast<int>(rng.below(16)); n > 0; --n) s += "0123456789.:af"[rng.below(14)];
    texts.push_back(s);
  }
  for (const std::string& text : texts) {
    unsigned char a4[4], a6[16];
    const Destination d = parseQuery(text);
    if (inet_pton(AF_INET, text.c_str(), a4) == 1) {
      ASSERT_EQ(d.kind, Destination::kIPv4) << text;
      EXPECT_EQ(std::memcmp(d.address.data(), a4, 4), 0) << text;
    } else if (inet_pton(AF_INET6, text.c_str(), a6) == 1) {
      ASSERT_EQ(d.kind, Destination::kIPv6) << text;
      EXPECT_EQ(std::memcmp(d.address.data(), a6, 16), 0) << text;
    } else {
      EXPECT_EQ(d.kind, Destination::kDomain) << text;
    }
  }
}

TEST(TaggedTable, FindsWhatAMapModelHolds) {
  // Tags from a small range: long probe runs, tags shared by different keys.
  Rng rng(31);
  TaggedTable<std::pair<int, int>> table;  // (key, value)
  std::unordered_map<int, int> model;
  auto tagOfKey = [](int key) { return static_cast<std::uint32_t>(key % 97) + 1; };
  for (int i = 0; i < 20000; ++i) {
    const int key = static_cast<int>(rng.below(3000));
    auto same = [key](const std::pair<int, int>& p) { return p.first == key; };
    if (rng.chance(0.5)) {
      auto& p = table.findOrAdd(tagOfKey(key), same);
      p.first = key;
      p.second = i;
      model[key] = i;
    } else {
      const auto* p = table.find(tagOfKey(key), same);
      const auto it = model.find(key);
      ASSERT_EQ(p != nullptr, it != model.end()) << key;
      if (p != nullptr) {
        EXPECT_EQ(p->second, it->second);
      }
    }
  }
  EXPECT_EQ(table.size(), model.size());
}

TEST(AddressTable, LongestNetworkOfTheRuleWins) {
  // Random IPv4 networks in two rule numbers against a brute-force scan.
  Rng rng(41);
  struct Net {
    int rule;
    std::uint32_t address;
    int prefix;
    int id;
  };
  std::vector<Net> nets;
  AddressTable table;
  auto masked = [](std::uint32_t a, int p) { return p == 0 ? 0u : a & (~0u << (32 - p)); };
  auto destination = [](std::uint32_t a, int prefix) {
    Destination d;
    d.kind = prefix == 32 ? Destination::kIPv4 : Destination::kIPv4Net;
    d.prefix = prefix;
    for (int i = 0; i < 4; ++i) d.address[i] = static_cast<std::uint8_t>(a >> (24 - 8 * i));
    return d;
  };
  for (int id = 0; id < 400; ++id) {
    // Addresses from a narrow block, so that networks nest.
    const Net n{static_cast<int>(rng.below(2)), 0x0a000000u | rng.below(1u << 12),
                20 + static_cast<int>(rng.below(13)), id};
    nets.push_back({n.rule, masked(n.address, n.prefix), n.prefix, id});
    table.add(n.rule, destination(n.address, n.prefix), {id, Verdict::kInclude});
  }
  for (int i = 0; i < 5000; ++i) {
    const int rule = static_cast<int>(rng.below(3));
    const std::uint32_t a = 0x0a000000u | rng.below(1u << 12);
    int best = -1, bestPrefix = -1;
    for (const Net& n : nets) {  // the first entry of a key stays
      if (n.rule == rule && masked(a, n.prefix) == n.address && n.prefix > bestPrefix) {
        best = n.id;
        bestPrefix = n.prefix;
      }
    }
    EXPECT_EQ(table.find(rule, destination(a, 32)).value, best) << a;
  }
}

TEST(Verdict, IncludeWinsATieAndTheFirstStaysOtherwise) {
  Verdict v;
  v.merge({5, Verdict::kExclude});
  v.merge({6, Verdict::kExclude});
  EXPECT_EQ(v.answer(), (Answer{0, 5}));
  v.merge({7, Verdict::kInclude});
  v.merge({8, Verdict::kExclude});
  v.merge({9, Verdict::kInclude});
  EXPECT_EQ(v.answer(), (Answer{1, 7}));
}

// Feeds `input` through a LinePump of `block` bytes (temporary files on both
// sides) and answers every query with its destination's length.
std::string pump(const std::string& input, std::size_t block,
                 std::vector<std::pair<std::string, std::string>>& queries) {
  std::FILE* in = std::tmpfile();
  std::FILE* out = std::tmpfile();
  std::fwrite(input.data(), 1, input.size(), in);
  std::fflush(in);
  std::rewind(in);
  {
    LinePump p(fileno(in), fileno(out), block);
    std::string_view app, destination;
    while (p.next(app, destination)) {
      queries.emplace_back(app, destination);
      p.write(Answer{queries.size() % 2 == 1 ? 1 : 0, static_cast<int>(destination.size()) - 1});
    }
  }
  std::rewind(out);
  std::string output;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, out)) > 0;) output.append(buf, n);
  std::fclose(in);
  std::fclose(out);
  return output;
}

TEST(LinePump, SplitsLinesAsTpaQueryReadsThem) {
  const std::string input = "a\tb.c\r\nno tab here\n\napp\t\ncom.x.y\tlong.name.example\nlast\tq";
  for (const std::size_t block : {std::size_t{1}, std::size_t{4}, std::size_t{1} << 20}) {
    std::vector<std::pair<std::string, std::string>> queries;
    const std::string output = pump(input, block, queries);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"a", "b.c"}, {"app", ""}, {"com.x.y", "long.name.example"}, {"last", "q"}};
    EXPECT_EQ(queries, expected) << block;
    EXPECT_EQ(output, "include\t2\nexclude\t-1\ninclude\t16\nexclude\t0\n") << block;
  }
}

TEST(LinePump, LongStreamsPassWhole) {
  std::string input, expected;
  for (int i = 0; i < 30000; ++i) {
    const std::string d(static_cast<std::size_t>(1 + i % 40), 'x');
    input += "app\t" + d + "\n";
    expected += (i % 2 == 0 ? "include\t" : "exclude\t") + std::to_string(d.size() - 1) + "\n";
  }
  std::vector<std::pair<std::string, std::string>> queries;
  // Small reads flush before each read; one large read leaves the output
  // buffer to fill and flush by itself, several times over.
  for (const std::size_t block : {std::size_t{1000}, std::size_t{1} << 20}) {
    queries.clear();
    EXPECT_EQ(pump(input, block, queries), expected) << block;
    EXPECT_EQ(queries.size(), 30000u);
  }
}

}  // namespace
}  // namespace tpa::bench
