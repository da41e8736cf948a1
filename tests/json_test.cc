// The rules-document reader: its objects, its key dictionary and its scan.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "api/constants.h"
#include "json/dawg.h"
#include "json/json.h"
#include "json/json_object.h"
#include "testing/log_capture.h"

namespace {

using tpa::json_config::dawg;
using tpa::json_config::json;
using tpa::json_config::json_array;
using tpa::json_config::json_object;
using tpa::testing::LogCapture;
using tpa::testing::LogRecord;
using namespace std::string_literals;

const char kBraces[] = "[ERROR] [JSON] braces count must be 0\n";
const char kBrackets[] = "[ERROR] [JSON] brackets count must be 0\n";

// "{key=<v1><v2> @current}": properties in key order, then the current key.
std::string Dump(const json_object& o) {
  std::string out = "{";
  for (const auto& [key, values] : o.properties) {
    out += key + "=";
    for (const std::string& v : values) out += "<" + v + ">";
    out += " ";
  }
  if (!o.curr_key.empty()) out += "@" + o.curr_key;
  return out + "}";
}

std::string Dump(const json_array& a) {
  std::string out;
  for (const json_object& o : a.objects) out += Dump(o);
  return out;
}

// Keeps a dump of the array at every announcement.
struct Recorder : tpa::json_config::JsonEventListener {
  void didParseJson(json_array* array) override { calls.push_back(Dump(*array)); }
  std::vector<std::string> calls;
};

struct ReaderCase {
  const char* name;
  std::string text;
  int result;
  std::vector<std::string> announced;
  std::string logged;  // the one error logged, or "" for none
};

TEST(JsonReader, ScansDocumentsEventByEvent) {
  const std::vector<ReaderCase> cases = {
      {"typical flow", R"([ {"match_apps": ["a", "b"], "include": ["x"]} ])", 0,
       {"{include=<x> match_apps=<a><b> @include}"}, ""},
      {"brackets without blank are empty", R"([{"include":[]}])", 0, {"{include=<> @include}"}, ""},
      {"brackets after a blank stay raw", R"([{"include": []}])", 0, {"{include=< []> @include}"}, ""},
      {"unquoted id keeps its blank", R"([{"id": 7}])", 0, {"{id=< 7> @id}"}, ""},
      {"quoted id", R"([{"id":"7"}])", 0, {"{id=<7> @id}"}, ""},
      {"comma in a level-1 string makes a key", R"([{"k":"a,b"}])", 0, {"{@a,b}"}, ""},
      {"comma in a level-2 string stays", R"([{"k":["a,b"]}])", 0, {"{k=<a,b> @k}"}, ""},
      {"object outside an array", R"({"a":"1","b":"2"})", 0, {}, ""},
      {"one extra closing brace", R"([{"a":"1"}]})", -4, {"{a=<1> @a}"}, kBraces},
      {"two top-level arrays", R"([{"a":"1"}][{"b":"2"}])", 0,
       {"{a=<1> @a}", "{a=<1> @a}{b=<2> @b}"}, ""},
      {"empty array", "[]", 0, {""}, ""},
      {"unclosed array", R"([{"a":"1"})", -4, {}, kBrackets},
      {"extra closing bracket", "[]]", -4, {""}, kBrackets},
      {"braces are checked first", "[{", -4, {}, kBraces},
      {"unclosed string swallows the rest", R"([{"a":"1}])", 0, {"{@a}"}, ""},
      {"nul and invalid utf-8 are plain bytes", "[{\"\xff\":\"\0\xc3\"}]"s, 0,
       {"{\xff=<\0\xc3> @\xff}"s}, ""},
      {"stray text is ignored", "xx[ yy {zz} ]", 0, {"{}"}, ""},
  };
  for (const ReaderCase& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture capture;
    Recorder recorder;
    json reader;
    EXPECT_EQ(c.result, reader.parse_json_str(c.text, &recorder));
    EXPECT_EQ(c.announced, recorder.calls);
    std::vector<LogRecord> expected;
    if (!c.logged.empty()) expected.push_back({6, "tarn_patteren_analyzer.so", c.logged});
    EXPECT_EQ(expected, capture.records());
  }
}

TEST(JsonReader, TopLevelObjectCommasNeverEndAProperty) {
  json reader;
  ASSERT_EQ(0, reader.parse_json_str(R"({"a":"1","b":"2"})", nullptr));
  EXPECT_EQ("{a=<1><b><2> @a}", Dump(reader.objects));
}

TEST(JsonReader, SuccessDropsTextAndDictionaryFailureKeepsThem) {
  json ok;
  ASSERT_EQ(0, ok.parse_json_str("[]", nullptr));
  EXPECT_TRUE(ok.json_str.empty());
  EXPECT_EQ(nullptr, ok.dict);

  LogCapture capture;
  json bad;
  ASSERT_EQ(tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH, bad.parse_json_str("[{\"a\"", nullptr));
  EXPECT_EQ("[{\"a\"", bad.json_str);
  ASSERT_NE(nullptr, bad.dict);
  EXPECT_TRUE(bad.dict->has("{\"a"));
  EXPECT_FALSE(bad.dict->has("a{"));
}

TEST(JsonReader, EmptyTextChangesNothing) {
  LogCapture capture;
  Recorder recorder;
  json reader;
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, reader.parse_json_str("", &recorder));
  EXPECT_EQ(nullptr, reader.listener);
  EXPECT_EQ(nullptr, reader.dict);
  EXPECT_TRUE(capture.records().empty());
}

TEST(JsonReader, SecondParseContinuesFromTheFirst) {
  Recorder recorder;
  json reader;
  ASSERT_EQ(0, reader.parse_json_str(R"([{"a":"1"}])", &recorder));
  ASSERT_EQ(0, reader.parse_json_str(R"([{"b":"2"}])", &recorder));
  EXPECT_EQ((std::vector<std::string>{"{a=<1> @a}", "{a=<1> @a}{b=<2> @b}"}), recorder.calls);
}

TEST(JsonReader, StaleDelimiterPastTheTextIsIgnored) {
  LogCapture capture;
  json reader;
  // Leaves a pending value whose colon stands at index 7.
  ASSERT_EQ(tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH, reader.parse_json_str("{\"key\": ", nullptr));
  // The '}' cuts from that colon, which lies past the new, shorter text.
  EXPECT_EQ(0, reader.parse_json_str("}", nullptr));
  EXPECT_EQ("{@key}", Dump(reader.objects));  // nothing was cut
}

TEST(JsonReader, ExtractValueHandlesEveryDelimiterOrder) {
  struct Case { int end, start; std::string key; };
  const std::vector<Case> cases = {
      {4, 0, "bcd"}, {3, -1, "abc"}, {1, 3, "ef"},  // reversed: to the end
      {2, 5, ""}, {9, 6, ""}, {9, 100, ""}, {9, -50, ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.end * 1000 + c.start);
    LogCapture capture;
    json reader;
    reader.json_str = "abcdef";
    reader.extract_value(c.end, c.start);
    EXPECT_EQ(c.key, reader.curr_object.curr_key);
  }
}

TEST(JsonReader, HostileNestingAndSizeDoNotCrash) {
  LogCapture capture;
  const std::vector<std::string> texts = {
      std::string(200000, '[') + std::string(200000, ']'), std::string(300000, '{'),
      std::string(100000, '}'), std::string(300000, '"'), std::string(300000, ':'),
      std::string(1 << 20, '\0')};
  for (const std::string& text : texts) {
    json reader;
    const int result = reader.parse_json_str(text, nullptr);
    EXPECT_TRUE(result == 0 || result == tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH);
  }
}

TEST(JsonReader, CountersStayInStepOnRandomDocuments) {
  LogCapture capture;
  std::mt19937 rng(7);
  const std::string alphabet = "{}[]\":,a ";
  for (int round = 0; round < 300; ++round) {
    std::string text(1 + rng() % 60, ' ');
    for (char& c : text) c = alphabet[rng() % alphabet.size()];
    int braces = 0, brackets = 0, commas = 0, closes = 0, drops = 0;
    for (char c : text) {
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
    EXPECT_EQ(braces, reader.braces_count);
    EXPECT_EQ(braces, reader.curly_level);
    EXPECT_EQ(brackets, reader.brackets_count);
    EXPECT_EQ(brackets, reader.square_level);
    EXPECT_EQ(commas, reader.comma_count);
    EXPECT_EQ(closes, static_cast<int>(reader.objects.objects.size()));
    EXPECT_EQ(drops, static_cast<int>(recorder.calls.size()));
  }
}

TEST(JsonReader, TraverseSurvivesAMissingOrForeignDictionary) {
  json reader;
  reader.json_str = R"([{"k":"v"}])";
  reader.traverse(reader.json_str);  // no dictionary at all
  ASSERT_EQ(0, reader.automaton("zz"));
  reader.traverse(reader.json_str);  // a dictionary of another text
  EXPECT_EQ("{k=<v> @k}{k=<v> @k}", Dump(reader.objects));
}

std::string TempFile(const std::string& content) {
  std::string path = ::testing::TempDir() + "json_test_rules.json";
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

TEST(JsonReader, ParsesAFileOpenedAtItsEnd) {
  const std::string path = TempFile(R"([{"id":"3"}])");
  std::ifstream stream(path, std::ios::in | std::ios::binary | std::ios::ate);
  Recorder recorder;
  json reader;
  EXPECT_EQ(0, reader.parse(stream, &recorder));
  EXPECT_EQ((std::vector<std::string>{"{id=<3> @id}"}), recorder.calls);
  std::remove(path.c_str());
}

TEST(JsonReader, FileThatIsNotOpenIsReported) {
  LogCapture capture;
  std::ifstream missing("/nonexistent/dir/rules.json", std::ios::in | std::ios::binary | std::ios::ate);
  std::ifstream never;
  json reader;
  EXPECT_EQ(-1, reader.parse(missing, nullptr));
  EXPECT_EQ(-1, reader.parse(never, nullptr));
  const LogRecord report{6, "TarnPatternAnalyzer",
                         "[json] [68] [parse] Reason: [json file to parse must be present]"};
  EXPECT_EQ((std::vector<LogRecord>{report, report}), capture.records());
}

TEST(JsonReader, EmptyOrBrokenFileStreams) {
  const std::string path = TempFile("");
  std::ifstream empty(path, std::ios::in | std::ios::binary | std::ios::ate);
  json reader;
  EXPECT_EQ(-2, reader.parse(empty, nullptr));
  std::ifstream broken(path, std::ios::in | std::ios::binary | std::ios::ate);
  broken.setstate(std::ios::failbit);
  EXPECT_EQ(-1, reader.parse(broken, nullptr));
  std::remove(path.c_str());
}

struct HasCase {
  std::vector<std::string> inserted;
  std::string probe;
  bool expected;
};

TEST(Dawg, HasFindsExactlyTheSubstrings) {
  const std::vector<HasCase> cases = {
      {{"abc"}, "", true},    {{"abc"}, "bc", true},       {{"abc"}, "abc", true},
      {{"abc"}, "ac", false}, {{"abc"}, "abcd", false},    {{"ab", "cd"}, "bc", true},
      {{""}, "", true},       {{""}, "a", false},          {{"abab"}, "bab", true},
      {{"abab"}, "bb", false}, {{"\xff\x01"}, "\xff", true}, {{"\x01"}, "\xff", false},
  };
  for (const HasCase& c : cases) {
    SCOPED_TRACE(c.probe);
    int total = 0;
    for (const std::string& s : c.inserted) total += static_cast<int>(s.size());
    dawg d(total);
    ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.construct());
    for (const std::string& s : c.inserted) ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.insert(s));
    EXPECT_EQ(c.expected, d.has(c.probe));
  }
}

TEST(Dawg, WithoutATableNothingIsFoundOrInserted) {
  dawg unbuilt(4);
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, unbuilt.insert("abc"));
  EXPECT_FALSE(unbuilt.has(""));
  EXPECT_EQ(-1, unbuilt.step(0, 'a'));
  ASSERT_EQ(tpa::error::TPA_ERROR_NONE, unbuilt.construct());
  EXPECT_FALSE(unbuilt.has("a"));  // the failed insert left nothing behind

  dawg negative(-1);
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, negative.construct());
  EXPECT_FALSE(negative.has(""));
  dawg huge(1 << 30);
  EXPECT_EQ(tpa::error::TPA_ERROR_OOM, huge.construct());
}

TEST(Dawg, InsertStopsAtTheLengthItWasSizedFor) {
  dawg d(3);
  ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.construct());
  ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.insert("ab"));
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, d.insert("cdefghijklmnop"));
  EXPECT_TRUE(d.has("abc"));
  EXPECT_FALSE(d.has("cd"));
  // A second construct() keeps the count of states, and still the table holds.
  ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.construct());
  EXPECT_EQ(tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX, d.insert(std::string(100, 'x')));
  EXPECT_EQ(-1, d.suffix_link(0));
  EXPECT_EQ(-1, d.step(1 << 20, 'a'));
}

TEST(Dawg, AgreesWithBruteForceOnRandomTexts) {
  std::mt19937 rng(20240517);
  for (int round = 0; round < 60; ++round) {
    // Small alphabets give deep clones; the full byte range gives wide runs.
    const int alphabet = round % 3 == 0 ? 256 : 2 + round % 5;
    std::string text;
    dawg d(400);
    ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.construct());
    for (int piece = 0; piece < 4; ++piece) {
      std::string s(rng() % 100, '\0');
      for (char& c : s) c = static_cast<char>(rng() % alphabet);
      ASSERT_EQ(tpa::error::TPA_ERROR_NONE, d.insert(s));
      text += s;
    }
    for (int probe = 0; probe < 200; ++probe) {
      std::string p;
      if (probe % 2 == 0 && !text.empty()) {
        const std::size_t at = rng() % text.size();
        p = text.substr(at, rng() % 12);
      } else {
        p.resize(rng() % 6);
        for (char& c : p) c = static_cast<char>(rng() % alphabet);
      }
      ASSERT_EQ(text.find(p) != std::string::npos, d.has(p)) << round << ":" << probe;
    }
  }
}

TEST(JsonObject, SecondKeyIsReportedAndIgnored) {
  LogCapture capture;
  json_object o;
  std::string a = "a", b = "b";
  o.set_key(a);
  o.set_key(b);
  EXPECT_EQ("a", o.get_curr_key());
  EXPECT_EQ(1, o.keys_count);
  EXPECT_EQ((std::vector<LogRecord>{{6, "TarnPatternAnalyzer",
                                     "[json_object] [56] [set_key] Reason: [current key must be empty]"}}),
            capture.records());
  o.clear();
  EXPECT_EQ("{}", Dump(o));
  EXPECT_EQ(0, o.keys_count);
}

TEST(JsonObject, CountPropertiesChecksKeysAgainstEntries) {
  struct Case {
    const char* name;
    std::vector<std::string> steps;  // "k:x" sets key x, "v:x" adds value x, "n" next, "g" get_vals
    int count;
  };
  const std::vector<Case> cases = {
      {"empty", {}, 0},
      {"one key with values", {"k:a", "v:1", "v:2"}, 1},
      {"two keys", {"k:a", "v:1", "n", "k:b", "v:2"}, 2},
      {"key without value", {"k:a"}, -1},
      {"same key twice", {"k:a", "v:1", "n", "k:a", "v:2"}, -1},
      {"value under the empty key", {"v:1"}, -1},
      {"get_vals creates the entry", {"k:a", "g"}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture capture;
    json_object o;
    for (const std::string& step : c.steps) {
      std::string arg = step.size() > 2 ? step.substr(2) : "";
      if (step[0] == 'k') o.set_key(arg);
      if (step[0] == 'v') o.set_val(arg);
      if (step[0] == 'n') o.next();
      if (step[0] == 'g') o.get_vals();
    }
    EXPECT_EQ(c.count, o.count_properties());
    std::vector<LogRecord> expected;
    if (c.count < 0) {
      expected.push_back({6, "TarnPatternAnalyzer",
                          "[json_object] [77] [count_properties] Reason: [size of properteis array "
                          "must match count of properties]"});
    }
    EXPECT_EQ(expected, capture.records());
  }
}

TEST(JsonArray, PushCopiesDeeply) {
  json_object o;
  std::string key = "k", value = "v";
  o.set_key(key);
  o.set_val(value);
  json_array array;
  array.push(o);
  o.get_vals().push_back("w");
  EXPECT_EQ("{k=<v> @k}", Dump(array));
  EXPECT_EQ("{k=<v><w> @k}", Dump(o));
}

}  // namespace
