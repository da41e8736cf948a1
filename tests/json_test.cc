// The rules-document reader: its objects, its key dictionary and its scan.
#include "json/json.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "json/dawg.h"
#include "json/json_object.h"
#include "testing/log_capture.h"
#include "tpa/api/constants.h"

namespace {

using namespace tpa::json_config;
using tpa::testing::LogCapture;
using tpa::testing::LogRecord;
using Logs = std::vector<LogRecord>;
using Strings = std::vector<std::string>;

const char kBraces[] = "[ERROR] [JSON] braces count must be 0\n";

// "{key=<v1><v2>@current}" per object: properties in key order, then the current key.
std::string Dump(const json_array& array) {
  std::string out;
  for (const json_object& o : array.objects) {
    out += "{";
    for (const auto& [key, values] : o.properties) {
      out += key + "=";
      for (const std::string& v : values) out += "<" + v + ">";
    }
    out += "@" + o.curr_key + "}";
  }
  return out;
}

// Keeps a dump of the array at every announcement.
struct Recorder : JsonEventListener {
  void didParseJson(json_array* array) override { calls.push_back(Dump(*array)); }
  Strings calls;
};

TEST(JsonReader, ScansDocumentsEventByEvent) {
  // clang-format off
  struct Case { std::string text; int result; Strings announced; const char* logged; };
  const std::vector<Case> cases = {
      {R"([ {"match_apps": ["a", "b"], "include": ["x"]} ])", 0,
       {"{include=<x>match_apps=<a><b>@include}"}, ""},
      {"[]", 0, {""}, ""},                                           // announces no objects
      {R"([{"include":[]}])", 0, {"{include=<>@include}"}, ""},      // "[]" cut whole is empty
      {R"([{"include": []}])", 0, {"{include=< []>@include}"}, ""},  // after a blank it stays
      {R"([{"id": 7}])", 0, {"{id=< 7>@id}"}, ""},                   // unquoted keeps its blank
      {R"([{"k":"a,b"}])", 0, {"{@a,b}"}, ""},         // a level-1 comma ends the key mid-string
      {R"([{"k":["a,b"]}])", 0, {"{k=<a,b>@k}"}, ""},
      {R"([{"a":"1"}}])", -4, {"{a=<1>@a}{a=<1>@a}"}, kBraces},  // every '}' pushes a copy
      {R"([{"a":"1"}][{"b":"2"}])", 0, {"{a=<1>@a}", "{a=<1>@a}{b=<2>@b}"}, ""},
      {R"([{"a":"1"})", -4, {}, "[ERROR] [JSON] brackets count must be 0\n"},
      {"[{", -4, {}, kBraces},                          // braces are checked first
      {R"([{"a":"1}])", 0, {"{@a}"}, ""},               // an unclosed string swallows the rest
  };
  // clang-format on
  for (const Case& c : cases) {
    LogCapture capture;
    Recorder recorder;
    EXPECT_EQ(c.result, json().parse_json_str(c.text, &recorder)) << c.text;
    EXPECT_EQ(c.announced, recorder.calls) << c.text;
    const Logs logged = *c.logged ? Logs{{6, "tarn_patteren_analyzer.so", c.logged}} : Logs{};
    EXPECT_EQ(logged, capture.records()) << c.text;
  }
}

TEST(JsonReader, StateCarriesOverTopLevelCommasAndIntoASecondParse) {
  LogCapture capture;
  json top, stale;
  ASSERT_EQ(0, top.parse_json_str(R"({"a":"1","b":"2"})", nullptr));
  EXPECT_EQ("{a=<1><b><2>@a}", Dump(top.objects));  // no comma ended "a"
  // A value left pending at index 7 cannot be cut from a shorter next text.
  ASSERT_EQ(-4, stale.parse_json_str("{\"key\": ", nullptr));
  EXPECT_EQ(0, stale.parse_json_str("}", nullptr));
  EXPECT_EQ("{@key}", Dump(stale.objects));
}

// Also: a success drops the text and the dictionary, a failure keeps both.
TEST(JsonReader, CountersStayInStepOnRandomDocuments) {
  LogCapture capture;
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    std::string text(1 + rng() % 60, ' ');
    int braces = 0, brackets = 0, commas = 0, closes = 0, drops = 0;
    for (char& c : text) {
      c = "{}[]\":,a "[rng() % 9];
      braces += (c == '{') - (c == '}');
      drops += c == ']' && brackets == 1;
      brackets += (c == '[') - (c == ']');
      commas += c == ',';
      closes += c == '}';
    }
    Recorder recorder;
    json reader;
    const int result = reader.parse_json_str(text, &recorder);
    ASSERT_EQ(braces == 0 && brackets == 0 ? 0 : -4, result) << text;
    EXPECT_EQ((std::vector<int>{braces, braces, brackets, brackets, commas, closes, drops}),
              (std::vector<int>{reader.braces_count, reader.curly_level, reader.brackets_count,
                                reader.square_level, reader.comma_count,
                                static_cast<int>(reader.objects.objects.size()),
                                static_cast<int>(recorder.calls.size())}))
        << text;
    EXPECT_EQ(result == 0 ? std::string() : text, reader.json_str);
    EXPECT_EQ(result != 0, reader.dict != nullptr);  // kept only by a failed parse
  }
}

TEST(JsonReader, ReadsFilesOpenedAtTheirEndEvenEmptyAndReportsOneNotOpen) {
  const std::string path = ::testing::TempDir() + "json_test_rules.json";
  std::ofstream(path, std::ios::binary) << R"([{"id":"3"}])";
  const auto mode = std::ios::in | std::ios::binary | std::ios::ate;
  std::ifstream file(path, mode), missing("/nonexistent/dir/rules.json", mode);
  Recorder recorder;
  EXPECT_EQ(0, json().parse(file, &recorder));
  EXPECT_EQ(Strings{"{id=<3>@id}"}, recorder.calls);
  std::ofstream(path, std::ios::binary);  // emptied: read as the empty text is, not refused
  std::ifstream empty(path, mode);
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, json().parse(empty, nullptr));
  std::remove(path.c_str());
  LogCapture capture;
  EXPECT_EQ(-1, json().parse(missing, nullptr));
  EXPECT_EQ((Logs{{6, "TarnPatternAnalyzer",
                   "[json] [68] [parse] Reason: [json file to parse must be present]"}}),
            capture.records());
}

// Without a table nothing goes in and nothing is found; with one, the text may
// not outgrow the length the table was made for.
TEST(Dawg, RefusesTextBeforeItsTableAndPastItsSize) {
  dawg d(3);
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, d.insert("abc"));
  EXPECT_FALSE(d.has(""));
  ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.construct());
  EXPECT_TRUE(d.has("") && !d.has("a"));
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, d.insert("abcdefghijklmnop"));
  EXPECT_TRUE(d.has("abc") && !d.has("abcd"));
}

// Insertions continue the text: pieces are concatenated with no separator.
TEST(Dawg, AgreesWithBruteForceOnRandomTexts) {
  std::mt19937 rng(20240517);
  for (int round = 0; round < 60; ++round) {
    // Small alphabets give deep clones; the full byte range gives wide runs.
    const int alphabet = round % 3 == 0 ? 256 : 2 + round % 5;
    const auto draw = [&](std::size_t n) {
      std::string s(n, '\0');
      for (char& c : s) c = static_cast<char>(rng() % alphabet);
      return s;
    };
    const std::string text = draw(1 + rng() % 399);
    dawg d(400);
    ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.construct());
    for (std::size_t at = 0; at < text.size(); at += 100)
      ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.insert(text.substr(at, 100)));
    // A string's state, its end positions, and the walk the reader makes.
    const auto walk = [&](const std::string& x) {
      int state = 0;
      for (char c : x) state = state < 0 ? -1 : d.step(state, c);
      return state;
    };
    const auto ends = [&](const std::string& x) {
      std::vector<std::size_t> at;
      for (auto i = text.find(x); i != std::string::npos; i = text.find(x, i + 1)) at.push_back(i);
      return at;
    };
    for (std::size_t i = 0, state = 0; i < text.size(); state = walk(text.substr(0, ++i)))
      ASSERT_EQ(d.step(state, text[i]), d.step_along(state, text[i])) << round << "@" << i;
    for (int k = 0; k < 200; ++k) {
      const std::string p = k % 2 ? draw(rng() % 6) : text.substr(rng() % text.size(), rng() % 12);
      ASSERT_EQ(text.find(p) != std::string::npos, d.has(p)) << round << ":" << k;
      if (p.empty() || !d.has(p)) continue;
      // The link leads to the longest suffix that also ends elsewhere.
      std::string u = p.substr(1);
      while (!u.empty() && ends(u).size() == ends(p).size()) u.erase(0, 1);
      ASSERT_EQ(walk(u), d.suffix_link(walk(p))) << round << ":" << k;
      const char c = static_cast<char>(rng() % alphabet);
      const int along = d.step_along(walk(p), c);
      ASSERT_TRUE(along == -1 || along == d.step(walk(p), c)) << round << ":" << k;
    }
    ASSERT_EQ(-1, d.suffix_link(0));
  }
}

// The reader never sets a second key nor counts; the reports are the
// object's own contract.
TEST(JsonObject, ReportsASecondKeyAndAKeyCountThatDisagreesWithTheEntries) {
  LogCapture capture;
  json_object o, copy;
  std::string a = "a", b = "b", v = "1";
  o.set_key(a);
  EXPECT_EQ(-1, o.count_properties());  // a key without a value has no entry yet
  o.set_key(b);                         // reported; the first key stays
  o.set_val(v);
  o.next();
  o.set_key(a);
  o.set_val(v);
  copy = o;
  EXPECT_EQ(-1, copy.count_properties());  // the same key twice: two keys, one entry
  EXPECT_EQ((Strings{"1", "1"}), copy.properties["a"]);
  o.clear();
  EXPECT_EQ(0, o.count_properties());
  EXPECT_TRUE(o.get_vals().empty() && o.properties.count("") == 1);  // the empty key's entry
  const char* tag = "TarnPatternAnalyzer";
  const LogRecord mismatch{6, tag, "[json_object] [77] [count_properties] Reason: [size of "
                                   "properteis array must match count of properties]"};
  EXPECT_EQ((Logs{mismatch,
                  {6, tag, "[json_object] [56] [set_key] Reason: [current key must be empty]"},
                  mismatch}),
            capture.records());
}

}  // namespace
