// The rule model, destination sanitising and the rules-file parser.
#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <vector>

#include "json/json_object.h"
#include "parser/json_parser.h"
#include "parser/rule.h"
#include "testing/log_capture.h"
#include "tpa/api/constants.h"

namespace {

using tpa::parser::JsonParser;
using tpa::parser::Rule;
using Strings = std::vector<std::string>;

// A rule without apps or destinations, up to its id.
const std::string kAny = "#LAMBDA-APP,|*,|,|";

Rule ruleOf(const std::map<std::string, Strings>& properties, int numberDigits) {
  tpa::json_config::json_object object;
  object.properties = properties;
  return Rule(object, numberDigits);
}

// "apps|include|exclude|id|totals|" per rule, each list item followed by ','.
std::string Show(const std::vector<Rule>& rules) {
  std::string out;
  for (const Rule& r : rules) {
    for (const Strings* list : {&r.apps, &r.includeList, &r.excludeList}) {
      for (const std::string& item : *list) out += item + ",";
      out += "|";
    }
    for (int n : {r.id, r.appSymbolTotal, r.includeSymbolTotal, r.excludeSymbolTotal})
      out += (n == INT_MAX ? "max" : std::to_string(n)) + "|";
  }
  return out;
}

TEST(Rule, ReadsListsWithDefaultsAndTotals) {
  // clang-format off
  const struct { std::map<std::string, Strings> object; int digits; std::string rule; } cases[] = {
      {{}, 1, kAny + "max|13|4|3|"},
      {{{"include", {}}, {"exclude", {}}}, 1, kAny + "max|13|4|3|"},
      {{{"match_apps", {"com.example.app"}}}, 1, "com.example.app,|*,|,|max|17|4|3|"},
      // Still a valid network once padded, so counted at 32 bits.
      {{{"include", {"10.0.0.0/8"}}}, 2, "#LAMBDA-APP,|010.000.000.000/08,|,|max|13|36|4|"},
      // Already bits after sanitising: counted at its length.
      {{{"exclude", {"2001:db8::/32"}}}, 1,
       "#LAMBDA-APP,|*,|00100000000000010000110110111000,|max|13|4|35|"},
      {{{"Include", {"x"}}, {"other", {"y"}}}, 1, kAny + "max|13|4|3|"},
      {{{"match_apps", {"a", "bc"}}, {"include", {"x.test", "1.2.3.4"}}}, 3,
       "a,bc,|x.test,001.002.003.004,|,|max|7|31|5|"},
      {{{"id", {"x"}}}, 1, kAny + "0|13|4|3|"}, {{{"id", {"12abc"}}}, 1, kAny + "12|13|4|3|"},
      {{{"id", {"4", "5"}}}, 1, kAny + "4|13|4|3|"}, {{{"id", {}}}, 1, kAny + "max|13|4|3|"},
  };
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(c.rule, Show({ruleOf(c.object, c.digits)})) << testing::PrintToString(c.object);
  }
}

TEST(Rule, CountsWithoutSentinelsAndClearsOnlyTheLists) {
  Rule rule = ruleOf({{"match_apps", {"ab", "c"}}, {"include", {"d.test"}}, {"id", {"9"}}}, 2);
  EXPECT_EQ((std::vector<int>{3, 2 + 6, 2 + 0}),
            (std::vector<int>{rule.appSymbolCount(false), rule.includeListSymbolCount(false),
                              rule.excludeListSymbolCount(false)}));
  // Networks count at their full address width.
  EXPECT_EQ(37 + 133 + 9 + 5, rule.domainSymbolCount(false, 5, {"10.0.0.0/8", "::/0", "name", ""}));
  rule.clear();
  EXPECT_EQ("|||9|7|10|4|", Show({rule}));
}

TEST(Sanitize, RewritesAddressesAndNetworksInPlace) {
  // clang-format off
  Strings list = {"10.1.2.3", "2001:db8::1", "2001:db8::/32", "example.com", "10.0.0.0/8", "::",
                  "*", "", "1.2.3.4/", "::1/128", "ABCD::/16", "Zone/8"};
  const Strings expected = {
      "010.001.002.003", "2001:0db8:0000:0000:0000:0000:0000:0001",
      "00100000000000010000110110111000", "example.com", "010.000.000.000/08",
      "0000:0000:0000:0000:0000:0000:0000:0000", "*", "", "001.002.003.004",
      "0000:0000:0000:0000:0000:0000:0000:0001", "1010101111001101", "Zone/8"};
  // clang-format on
  tpa::parser::sanitize(list);
  EXPECT_EQ(expected, list);
}

// One parser reads every document: each parse starts from empty rules and totals.
TEST(JsonParser, ReadsDocumentsIntoRules) {
  std::string ten;
  for (int i = 1; i <= 10; ++i) ten += kAny + (i < 10 ? "max|13|4|3|" : "max|13|5|4|");
  // clang-format off
  const struct { std::string text, rules; } cases[] = {
      {"[]", ""},
      {R"([{"id": "1", "match_apps": ["com.example.mail"], "include": ["*.example.com", )"
       R"("10.0.0.0/8"], "exclude": ["ads.example.com"]}, {"include": ["2001:db8::/32"]}])",
       "com.example.mail,|*.example.com,010.000.000.000/08,|ads.example.com,|1|18|51|18|"
       "#LAMBDA-APP,|00100000000000010000110110111000,|,|max|13|35|3|"},
      {"[{},{},{},{},{},{},{},{},{},{}]", ten},  // rule 10 has two digits
  };
  // clang-format on
  JsonParser parser;
  for (const auto& c : cases) {
    ASSERT_EQ(0, parser.parse(c.text, false)) << c.text;
    EXPECT_EQ(c.rules, Show(parser.getRules())) << c.text;
  }
  EXPECT_EQ((std::vector<int>{130, 41, 31}),
            (std::vector<int>{parser.grossAppBytesCount(), parser.grossIncludeBytesCount(),
                              parser.grossExcludeBytesCount()}));
}

// The parser itself logs nothing: only the reader's balance message appears.
TEST(JsonParser, ReaderFailuresSetStatusAndKeepAnnouncedRulesUntilCleared) {
  // clang-format off
  const struct { const char* text; int code; std::size_t rules, logged; } cases[] = {
      {"", -2, 0, 0}, {"[{}", -4, 0, 1}, {"[{}]}", -4, 1, 1}};
  // clang-format on
  JsonParser parser;
  for (const auto& c : cases) {
    tpa::testing::LogCapture capture;
    EXPECT_EQ(c.code, parser.parse(c.text, false)) << c.text;
    EXPECT_EQ(c.code, parser.getStatus()) << c.text;
    EXPECT_EQ(c.rules, parser.getRules().size()) << c.text;
    EXPECT_EQ(0, parser.grossAppBytesCount()) << c.text;
    EXPECT_EQ(c.logged, capture.records().size()) << c.text;
  }
  parser.clear();
  EXPECT_TRUE(parser.getRules().empty());
  EXPECT_EQ(0, parser.getStatus());
  parser.didParseJson(nullptr);
  EXPECT_EQ(tpa::error::TPA_ERROR_SA_INVALID_CAPACITTY, parser.getStatus());
}

// k top-level arrays make k(k+1)/2 rules: read as written while the rules made
// again fit the budget, refused (having made no more than it) past it.
TEST(JsonParser, RepeatedArraysAreBoundedByTheirCost) {
  auto arrays = [](int k) {
    std::string text;
    for (int i = 0; i < k; ++i) text += "[{}]";
    return text;
  };
  JsonParser parser;
  EXPECT_FALSE(parser.overBudget());  // nothing refused yet
  ASSERT_EQ(0, parser.parse(arrays(363), false));
  EXPECT_EQ(66066u, parser.getRules().size());
  EXPECT_EQ(66066 * 13, parser.grossAppBytesCount());
  EXPECT_FALSE(parser.overBudget());
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, parser.parse(arrays(20000), false));
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, parser.getStatus());
  EXPECT_TRUE(parser.overBudget());
  // A rule of {} costs 96 + 3 * 32 + 20 bytes: each object once, and repeats within the budget.
  EXPECT_LE(parser.getRules().size(), 20000u + JsonParser::kRepeatBudgetBytes / 212);
}

}  // namespace
