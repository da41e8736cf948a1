// The rule model, destination sanitising and the rules-file parser.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "api/constants.h"
#include "json/json_object.h"
#include "parser/json_parser.h"
#include "parser/rule.h"
#include "testing/log_capture.h"

namespace {

using tpa::json_config::json_object;
using tpa::parser::JsonParser;
using tpa::parser::Rule;
using Strings = std::vector<std::string>;

const std::string kZeroIPv6 = "0000:0000:0000:0000:0000:0000:0000:0000";

json_object objectOf(const std::map<std::string, Strings>& properties) {
  json_object object;
  object.properties = properties;
  object.keys_count = static_cast<int>(properties.size());
  return object;
}

using Totals = std::array<int, 3>;  // apps, include, exclude
Totals totalsOf(const Rule& r) {
  return {r.appSymbolTotal, r.includeSymbolTotal, r.excludeSymbolTotal};
}
Totals totalsOf(const JsonParser& p) {
  return {p.grossAppBytesCount(), p.grossIncludeBytesCount(), p.grossExcludeBytesCount()};
}

TEST(Rule, ReadsListsWithDefaultsAndTotals) {
  struct Case {
    std::map<std::string, Strings> properties;
    int numberDigits;
    Strings apps, include, exclude;
    Totals totals;
  };
  const Strings any = {"#LAMBDA-APP"};
  // clang-format off
  const std::vector<Case> cases = {
      {{}, 1, any, {"*"}, {""}, {13, 4, 3}},
      {{{"include", {}}, {"exclude", {}}}, 1, any, {"*"}, {""}, {13, 4, 3}},
      {{{"match_apps", {"com.example.app"}}}, 1, {"com.example.app"}, {"*"}, {""}, {17, 4, 3}},
      // Still a valid network once padded, so counted at 32 bits.
      {{{"include", {"10.0.0.0/8"}}}, 2, any, {"010.000.000.000/08"}, {""}, {13, 36, 4}},
      // Already bits after sanitising: counted at its length.
      {{{"exclude", {"2001:db8::/32"}}}, 1, any, {"*"}, {"00100000000000010000110110111000"},
       {13, 4, 35}},
      // What the reader makes of "include":[] is a list holding "".
      {{{"include", {""}}}, 1, any, {""}, {""}, {13, 3, 3}},
      {{{"Include", {"x"}}, {"other", {"y"}}}, 1, any, {"*"}, {""}, {13, 4, 3}},
      {{{"match_apps", {"a", "bc"}}, {"include", {"x.test", "1.2.3.4"}}}, 3, {"a", "bc"},
       {"x.test", "001.002.003.004"}, {""}, {7, 11 + 20, 5}}};
  // clang-format on
  for (const auto& c : cases) {
    const Rule rule(objectOf(c.properties), c.numberDigits);
    const std::string name = ::testing::PrintToString(c.properties);
    EXPECT_EQ(c.apps, rule.apps) << name;
    EXPECT_EQ(c.include, rule.includeList) << name;
    EXPECT_EQ(c.exclude, rule.excludeList) << name;
    EXPECT_EQ(INT_MAX, rule.id) << name;
    EXPECT_EQ(c.totals, totalsOf(rule)) << name;
    EXPECT_EQ((Totals{rule.appSymbolCount(true), rule.includeListSymbolCount(true),
                      rule.excludeListSymbolCount(true)}),
              totalsOf(rule))
        << name;
  }
}

TEST(Rule, ReadsIdWithAtoi) {
  struct Case {
    Strings values;
    int id;
  };
  const std::vector<Case> cases = {{{"7"}, 7},   {{"x"}, 0},    {{"12abc"}, 12}, {{" 7"}, 7},
                                   {{"-3"}, -3}, {{}, INT_MAX}, {{"4", "5"}, 4}, {{""}, 0}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.id, Rule(objectOf({{"id", c.values}}), 1).id) << ::testing::PrintToString(c.values);
  }
}

TEST(Rule, CountsWithoutSentinelsAndOverAnyList) {
  const Rule rule(objectOf({{"match_apps", {"ab", "c"}}, {"include", {"d.test"}}}), 2);
  EXPECT_EQ(3, rule.appSymbolCount(false));
  EXPECT_EQ(2 + 6, rule.includeListSymbolCount(false));
  EXPECT_EQ(2 + 0, rule.excludeListSymbolCount(false));
  const Strings list = {"10.0.0.0/8", "::/0", "name", ""};
  EXPECT_EQ((5 + 32) + (5 + 128) + (5 + 4) + (5 + 0), rule.domainSymbolCount(false, 5, list));
  EXPECT_EQ(4 * 2 + 32 + 128 + 4, rule.domainSymbolCount(true, 0, list));
}

TEST(Rule, CopyKeepsEveryFieldAndClearEmptiesOnlyLists) {
  Rule rule(objectOf({{"match_apps", {"a"}}, {"include", {"x"}}, {"id", {"9"}}}), 2);
  const Rule copy(rule);
  rule.clear();
  EXPECT_TRUE(rule.apps.empty() && rule.includeList.empty() && rule.excludeList.empty());
  EXPECT_GE(rule.apps.capacity(), 1u);
  EXPECT_EQ(9, rule.id);
  EXPECT_EQ((Totals{3, 5, 4}), totalsOf(rule));
  EXPECT_EQ(Strings{"a"}, copy.apps);
  EXPECT_EQ(Strings{"x"}, copy.includeList);
  EXPECT_EQ(Strings{""}, copy.excludeList);
  EXPECT_EQ(9, copy.id);
  EXPECT_EQ(2, copy.numberDigits);
  EXPECT_EQ((Totals{3, 5, 4}), totalsOf(copy));
}

TEST(Rule, MalformedNetworkDestinationThrowsOutOfRange) {
  EXPECT_THROW(Rule(objectOf({{"include", {"face/"}}}), 1), std::out_of_range);
}

TEST(Sanitize, RewritesAddressesAndNetworksInPlace) {
  Strings list = {
      "10.1.2.3", "2001:db8::1", "2001:db8::/32", "example.com", "10.0.0.0/8", "::", "*",
      "",         "1.2.3.4/",    "::1/128",       "ABCD::/16",   "Zone/8"};
  tpa::parser::sanitize(list);
  // clang-format off
  const Strings expected = {
      "010.001.002.003", "2001:0db8:0000:0000:0000:0000:0000:0001",
      "00100000000000010000110110111000", "example.com", "010.000.000.000/08", kZeroIPv6, "*", "",
      "001.002.003.004", "0000:0000:0000:0000:0000:0000:0000:0001", "1010101111001101", "Zone/8"};
  // clang-format on
  EXPECT_EQ(expected, list);
}

// A JsonParser over text, failing the test on a non-zero result.
JsonParser& parsed(JsonParser& parser, const std::string& text) {
  EXPECT_EQ(0, parser.parse(text, false)) << text;
  return parser;
}

TEST(JsonParser, EmptyArrayAndEmptyObject) {
  JsonParser parser;
  EXPECT_TRUE(parsed(parser, "[]").getRules().empty());
  EXPECT_EQ(0, parser.getStatus());
  EXPECT_EQ((Totals{0, 0, 0}), totalsOf(parser));
  EXPECT_EQ(1u, parsed(parser, "[{}]").getRules().size());
  EXPECT_EQ((Totals{13, 4, 3}), totalsOf(parser));
  parser.clear();
  EXPECT_TRUE(parser.getRules().empty());
  EXPECT_EQ((Totals{0, 0, 0}), totalsOf(parser));
}

TEST(JsonParser, TenthRuleGetsTwoDigits) {
  std::string text = "[";
  for (int i = 1; i <= 10; ++i)
    text += std::string(i > 1 ? "," : "") + "{\"id\":\"" + std::to_string(i) + "\"}";
  text += "]";
  JsonParser parser;
  const auto& rules = parsed(parser, text).getRules();
  ASSERT_EQ(10u, rules.size());
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(i + 1, rules[i].id);
    EXPECT_EQ(i < 9 ? 1 : 2, rules[i].numberDigits) << i;
  }
  EXPECT_EQ((Totals{10 * 13, 9 * 4 + 5, 9 * 3 + 4}), totalsOf(parser));
}

TEST(JsonParser, ReadsTheDocumentExample) {
  JsonParser parser;
  parsed(
      parser,
      "[{\"id\": \"1\", \"match_apps\": [\"com.example.mail\"], \"include\": [\"*.example.com\", "
      "\"10.0.0.0/8\"], \"exclude\": [\"ads.example.com\"]}, {\"include\": [\"2001:db8::/32\"]}]");
  const auto& rules = parser.getRules();
  ASSERT_EQ(2u, rules.size());
  EXPECT_EQ(1, rules[0].id);
  EXPECT_EQ(Strings{"com.example.mail"}, rules[0].apps);
  EXPECT_EQ((Strings{"*.example.com", "010.000.000.000/08"}), rules[0].includeList);
  EXPECT_EQ(Strings{"ads.example.com"}, rules[0].excludeList);
  EXPECT_EQ(Strings{"#LAMBDA-APP"}, rules[1].apps);
  EXPECT_EQ(Strings{"00100000000000010000110110111000"}, rules[1].includeList);
  EXPECT_EQ(INT_MAX, rules[1].id);
  EXPECT_EQ((Totals{18 + 13, (1 + 2 + 13) + (1 + 2 + 32) + (1 + 2 + 32), (1 + 2 + 15) + 3}),
            totalsOf(parser));
}

TEST(JsonParser, ComposesReaderValuesLiterally) {
  struct Case {
    std::string text;
    Strings include;
    int id;
  };
  const std::vector<Case> cases = {{R"([{"include":[]}])", {""}, INT_MAX},
                                   {R"([{"include": []}])", {" []"}, INT_MAX},
                                   {R"([{"id": 7}])", {"*"}, 7},
                                   {R"([{"id":"7"}])", {"*"}, 7}};
  for (const auto& c : cases) {
    JsonParser parser;
    const auto& rules = parsed(parser, c.text).getRules();
    ASSERT_EQ(1u, rules.size()) << c.text;
    EXPECT_EQ(c.include, rules[0].includeList) << c.text;
    EXPECT_EQ(c.id, rules[0].id) << c.text;
  }
}

TEST(JsonParser, SecondTopLevelArrayAppendsTheGrownArrayAgain) {
  JsonParser parser;
  const auto& rules = parsed(parser, R"([{"id":"1"}][{"id":"2"}])").getRules();
  ASSERT_EQ(3u, rules.size());
  EXPECT_EQ(1, rules[0].id);
  EXPECT_EQ(1, rules[1].id);
  EXPECT_EQ(2, rules[2].id);
  EXPECT_EQ(3 * 13, parser.grossAppBytesCount());
}

TEST(JsonParser, ReparseStartsFromEmpty) {
  JsonParser parser;
  parsed(parser, R"([{"id":"1"},{"id":"2"}])");
  parsed(parser, R"([{"match_apps":["a"]}])");
  ASSERT_EQ(1u, parser.getRules().size());
  EXPECT_EQ(Strings{"a"}, parser.getRules()[0].apps);
  EXPECT_EQ((Totals{3, 4, 3}), totalsOf(parser));
}

// The parser itself logs nothing: only the reader's balance message appears.
TEST(JsonParser, ReaderFailuresSetStatusAndKeepAnnouncedRules) {
  struct Case {
    std::string text;
    int code;
    std::size_t rules;
    std::size_t logged;
  };
  const std::vector<Case> cases = {{"", -2, 0, 0},
                                   {"[{}]}", tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH, 1, 1},
                                   {"[{}", tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH, 0, 1}};
  for (const auto& c : cases) {
    tpa::testing::LogCapture capture;
    JsonParser parser;
    EXPECT_EQ(c.code, parser.parse(c.text, false)) << c.text;
    EXPECT_EQ(c.code, parser.getStatus()) << c.text;
    EXPECT_EQ(c.rules, parser.getRules().size()) << c.text;
    EXPECT_EQ(0, parser.grossAppBytesCount()) << c.text;
    EXPECT_EQ(c.logged, capture.records().size()) << c.text;
  }
}

TEST(JsonParser, NullArraySetsInvalidCapacityStatus) {
  JsonParser parser;
  parser.didParseJson(nullptr);
  EXPECT_EQ(tpa::error::TPA_ERROR_SA_INVALID_CAPACITTY, parser.getStatus());
  EXPECT_TRUE(parser.getRules().empty());
}

// A scratch directory removed with its files at the end of a test.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/tpa_parser_XXXXXX";
    const char* made = mkdtemp(pattern);
    path_ = made ? made : "";
  }
  ~TempDir() {
    for (const auto& file : files_) std::remove(file.c_str());
    rmdir(path_.c_str());
  }
  std::string write(const std::string& name, const std::string& content) {
    const std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary) << content;
    files_.push_back(file);
    return file;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  Strings files_;
};

TEST(JsonParser, FileAndTextGiveTheSameRules) {
  const std::string text = R"([{"match_apps":["a.b"],"include":["10.1.2.3"],"id":"4"},{}])";
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const std::string file = dir.write("rules.json", text);
  JsonParser fromText, fromFile;
  ASSERT_EQ(0, fromText.parse(text, false));
  ASSERT_EQ(0, fromFile.parse(file, true));
  ASSERT_EQ(2u, fromFile.getRules().size());
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(fromText.getRules()[i].apps, fromFile.getRules()[i].apps);
    EXPECT_EQ(fromText.getRules()[i].includeList, fromFile.getRules()[i].includeList);
    EXPECT_EQ(fromText.getRules()[i].id, fromFile.getRules()[i].id);
  }
  EXPECT_EQ(Strings{"010.001.002.003"}, fromFile.getRules()[0].includeList);
  EXPECT_EQ(totalsOf(fromText), totalsOf(fromFile));
}

TEST(JsonParser, MissingFileReturnsFileNotFound) {
  TempDir dir;
  JsonParser parser;
  parsed(parser, "[{}]");
  EXPECT_EQ(tpa::error::TPA_ERROR_JSON_FILE_NOT_FOUND,
            parser.parse(dir.path() + "/absent.json", true));
  EXPECT_EQ(tpa::error::TPA_ERROR_JSON_FILE_NOT_FOUND, parser.getStatus());
  EXPECT_TRUE(parser.getRules().empty());
}

TEST(JsonParser, EmptyFileReturnsReaderCode) {
  TempDir dir;
  JsonParser parser;
  EXPECT_EQ(-2, parser.parse(dir.write("empty.json", ""), true));
}

}  // namespace
