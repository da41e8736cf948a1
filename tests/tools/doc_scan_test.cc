// The tool's document scan and its text helpers.
#include "tools/doc_scan.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "testing/log_capture.h"
#include "tools/json_escape.h"
#include "tools/lint.h"

namespace tpa::tools {
namespace {

TEST(DocScan, FindingsStayInsideRandomText) {
  tpa::testing::LogCapture quiet;  // the build logs every unbalanced text
  const std::string alphabet = "{}[]\"\":,,ab id  \\\n";
  std::mt19937 random(20240611);
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (int n = random() % 60 + 1; n > 0; --n) text += alphabet[random() % alphabet.size()];
    for (const Finding& f : lintDocument(text)) ASSERT_LE(f.offset, text.size()) << text;
  }
}

TEST(NearestRuleKey, SuggestsOnlyLikelyTypos) {
  const std::vector<std::string> typos = {"inclde", "Include", "exlude", "match-apps", "ID", "ids"};
  const std::vector<std::string> meant = {"include",    "include", "exclude",
                                          "match_apps", "id",      "id"};
  for (std::size_t i = 0; i < typos.size(); ++i)
    EXPECT_EQ(nearestRuleKey(typos[i]), meant[i]) << typos[i];
  for (const char* key : {"x", "apps", "comment", ""}) EXPECT_EQ(nearestRuleKey(key), "") << key;
}

TEST(JsonEscape, EscapesQuotesBackslashesAndControlBytesOnly) {
  std::string out;
  appendJsonString(out, std::string("a\"b\\c\n\t\r\b\f\x01\x1f\0\x7f\xc3\xa9\xff", 17));
  EXPECT_EQ(out, "\"a\\\"b\\\\c\\n\\t\\r\\b\\f\\u0001\\u001f\\u0000\x7f\xc3\xa9\xff\"");
}

// A destination as the map stores it: "NETWORK STORED" (network 4, 6 or 0 for
// none), or "throws".
TEST(StoreDestination, StoresWhatTheMapStoresOrThrows) {
  const char* cases[][2] = {
      {"2001:db8::/32", "6 00100000000000010000110110111000"},
      {"10.0.0.0/40", "4 010.000.000.000"},  // the prefix is cut to 32
      {"1.2.3.4/", "0 001.002.003.004"},     // read as an address first
      {"2001:db8::/4294967296", "throws"},
  };
  for (const auto& [written, stored] : cases) {
    const StoredDestination d = storeDestination(written);
    EXPECT_EQ(d.threw ? "throws" : std::to_string(d.network) + " " + d.stored, stored) << written;
  }
}

}  // namespace
}  // namespace tpa::tools
