// The tool's reader replay against the library's reader, and its text helpers.
#include "tools/doc_scan.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "api/constants.h"
#include "json/json.h"
#include "testing/log_capture.h"
#include "tools/json_escape.h"
#include "tools/lint.h"

namespace tpa::tools {
namespace {

using Properties = std::map<std::string, std::vector<std::string>>;

// What the parser receives from the library's reader: every announced
// object's properties, in announcement order.
class Collector : public json_config::JsonEventListener {
 public:
  void didParseJson(json_config::json_array* array) override {
    for (const json_config::json_object& o : array->objects) rules.push_back(o.properties);
  }
  std::vector<Properties> rules;
};

// The same, from the replay: merged values of the keys that got values.
std::vector<Properties> replayedRules(const DocumentScan& scan) {
  std::vector<Properties> rules;
  for (std::size_t index : scan.rules) {
    Properties properties;
    for (const ScannedProperty& p : scan.objects[index].properties) {
      for (const ScannedString& v : p.values) properties[p.key.text].push_back(v.text);
    }
    rules.push_back(properties);
  }
  return rules;
}

// Mostly structure, some letters and blanks, the odd backslash and newline.
std::string randomDocument(std::mt19937& random) {
  static constexpr char kAlphabet[] = "{}[]\"\":,,ab id  \\\n";
  std::uniform_int_distribution<int> length(1, 60);
  std::uniform_int_distribution<int> pick(0, sizeof kAlphabet - 2);
  std::string text;
  for (int n = length(random); n > 0; --n) text += kAlphabet[pick(random)];
  return text;
}

TEST(DocScan, ReplaysTheLibraryReaderOnRandomText) {
  tpa::testing::LogCapture quiet;  // the reader logs every unbalanced text
  std::mt19937 random(20240611);
  for (int round = 0; round < 5000; ++round) {
    const std::string text = randomDocument(random);
    Collector collector;
    json_config::json reader;
    const int code = reader.parse_json_str(text, &collector);
    const DocumentScan scan = scanDocument(text);
    ASSERT_EQ(collector.rules, replayedRules(scan)) << text;
    ASSERT_EQ(code == error::TPA_ERROR_JSON_PARSE_MISMATCH, !scan.balanced) << text;
    for (const Finding& f : lintDocument(text)) ASSERT_LE(f.offset, text.size()) << text;
  }
}

TEST(DocScan, RecordsWhereValuesStartAndHowTheyWereWritten) {
  const std::string text = "[{\"id\": 7, \"include\": [\"a\", \"[]\"], \"exclude\":[]}]";
  const DocumentScan scan = scanDocument(text);
  ASSERT_EQ(scan.values.size(), 4u);
  EXPECT_EQ(scan.values[0].key, "id");
  EXPECT_EQ(scan.values[0].value.text, " 7");
  EXPECT_FALSE(scan.values[0].value.quoted);
  EXPECT_EQ(text.substr(scan.values[0].value.offset, 2), " 7");
  EXPECT_EQ(text.substr(scan.values[1].value.offset, 1), "a");
  EXPECT_TRUE(scan.values[2].value.emptyBrackets);
  EXPECT_TRUE(scan.values[2].value.quoted);
  EXPECT_TRUE(scan.values[3].value.emptyBrackets);
  EXPECT_FALSE(scan.values[3].value.quoted);
}

TEST(DocScan, SecondTopLevelArrayRepeatsTheFirstArraysObjects) {
  const DocumentScan scan = scanDocument("[{\"id\":\"1\"}][{\"id\":\"2\"}]");
  EXPECT_EQ(scan.rules, (std::vector<std::size_t>{0, 0, 1}));
}

TEST(NearestRuleKey, SuggestsOnlyLikelyTypos) {
  const struct {
    const char* key;
    const char* nearest;
  } cases[] = {
      {"inclde", "include"},
      {"Include", "include"},
      {"exlude", "exclude"},
      {"matchapps", "match_apps"},
      {"match-apps", "match_apps"},
      {"ID", "id"},
      {"ids", "id"},
      {"x", ""},
      {"apps", ""},
      {"comment", ""},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(nearestRuleKey(c.key), c.nearest) << c.key;
}

TEST(JsonEscape, EscapesQuotesBackslashesAndControlBytesOnly) {
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"plain", "\"plain\""},
      {"a\"b", "\"a\\\"b\""},
      {"a\\b", "\"a\\\\b\""},
      {"\n\t\r\b\f", "\"\\n\\t\\r\\b\\f\""},
      {std::string("\x01\x1f", 2), "\"\\u0001\\u001f\""},
      {std::string("\0", 1), "\"\\u0000\""},
      {"\x7f\xc3\xa9\xff", "\"\x7f\xc3\xa9\xff\""},
  };
  for (const auto& c : cases) {
    std::string out;
    appendJsonString(out, c.in);
    EXPECT_EQ(out, c.out);
  }
}

TEST(LineIndex, CountsLinesAndColumnsFromOne) {
  const LineIndex index("ab\ncd\n\nx");
  const struct {
    std::size_t offset, line, column;
  } cases[] = {{0, 1, 1}, {1, 1, 2}, {2, 1, 3}, {3, 2, 1}, {6, 3, 1}, {7, 4, 1}};
  for (const auto& c : cases) {
    EXPECT_EQ(index.at(c.offset), std::make_pair(c.line, c.column)) << c.offset;
  }
}

TEST(StoreDestination, StoresWhatTheMapStores) {
  const struct {
    const char* written;
    const char* stored;
    int network;
  } cases[] = {
      {"example.com", "example.com", 0},
      {"10.1.2.3", "010.001.002.003", 0},
      {"10.0.0.0/8", "00001010", 4},
      {"2001:db8::/32", "00100000000000010000110110111000", 6},
      {"::/0", "0000:0000:0000:0000:0000:0000:0000:0000", 6},
      {"10.0.0.0/40", "010.000.000.000", 4},
  };
  for (const auto& c : cases) {
    const StoredDestination d = storeDestination(c.written);
    EXPECT_FALSE(d.threw) << c.written;
    EXPECT_EQ(d.stored, c.stored) << c.written;
    EXPECT_EQ(d.network, c.network) << c.written;
  }
  EXPECT_TRUE(storeDestination("face/").threw);
  EXPECT_TRUE(storeDestination("2001:db8::/4294967296").threw);
  EXPECT_FALSE(storeDestination("1.2.3.4/").threw);  // read as an address first
}

}  // namespace
}  // namespace tpa::tools
