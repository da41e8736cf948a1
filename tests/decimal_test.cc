// Numbers written with more digits than 32 bits hold read as 64-bit glibc
// reads them, on every architecture: the tables hold those answers, and where
// the host's own C library is that reference (64-bit long, glibc) it is
// checked against them and against random text.
#include "cidr/decimal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>

#include "api/analyzer.h"
#include "cidr/cidr.h"

namespace {

using tpa::cidr::readDecimal;
using tpa::cidr::scanDottedDecimals;

#if defined(__GLIBC__) && LONG_MAX == INT64_MAX
constexpr bool kHostIsReference = true;
#else
constexpr bool kHostIsReference = false;
#endif

constexpr int kUntouched = 77;

struct Scan {
  int count;
  int parts[5];
  bool operator==(const Scan& o) const {
    return count == o.count && std::equal(parts, parts + 5, o.parts);
  }
};

Scan scan(const char* text) {
  Scan s{0, {kUntouched, kUntouched, kUntouched, kUntouched, kUntouched}};
  s.count = scanDottedDecimals(text, s.parts);
  return s;
}

Scan hostScan(const char* text) {
  Scan s{0, {kUntouched, kUntouched, kUntouched, kUntouched, kUntouched}};
  int* p = s.parts;
  s.count = std::sscanf(text, "%d.%d.%d.%d/%d", &p[0], &p[1], &p[2], &p[3], &p[4]);
  return s;
}

// atoi's value, strtol's end (as an offset) and whether the number fits an int.
void expectAtoi(const char* text, int value, long end, bool fits) {
  const tpa::cidr::DecimalReading r = readDecimal(text);
  EXPECT_EQ(value, r.value) << '"' << text << '"';
  EXPECT_EQ(end, r.end - text) << '"' << text << '"';
  EXPECT_EQ(fits, r.fitsInt) << '"' << text << '"';
  if (kHostIsReference) {
    char* hostEnd = nullptr;
    errno = 0;
    const long wide = std::strtol(text, &hostEnd, 10);
    const bool hostFits = errno != ERANGE && wide >= INT_MIN && wide <= INT_MAX;
    EXPECT_EQ(std::atoi(text), r.value) << '"' << text << '"';
    EXPECT_EQ(hostEnd, r.end) << '"' << text << '"';
    EXPECT_EQ(hostFits, r.fitsInt) << '"' << text << '"';
  }
}

TEST(Decimal, AtoiGivesThe64BitAnswers) {
  // clang-format off
  const struct { const char* text; int value; long end; bool fits; } cases[] = {
      {"", 0, 0, true}, {"x", 0, 0, true}, {"5", 5, 1, true}, {"+5", 5, 2, true},
      {" \t\n\v\f\r5", 5, 7, true}, {"- 5", 0, 0, true}, {"--5", 0, 0, true}, {"+-5", 0, 0, true},
      {"-5x", -5, 2, true}, {"12abc", 12, 2, true}, {"2147483647", INT_MAX, 10, true},
      {"2147483648", INT_MIN, 10, false}, {"-2147483648", INT_MIN, 11, true},
      {"-2147483649", INT_MAX, 11, false}, {"4294967306", 10, 10, false},
      {"-4294967306", -10, 11, false}, {"9223372036854775807", -1, 19, false},
      {"9223372036854775808", -1, 19, false}, {"99999999999999999999", -1, 20, false},
      {"-9223372036854775807", 1, 20, false}, {"-9223372036854775808", 0, 20, false},
      {"-99999999999999999999", 0, 21, false}, {"000000000000000000000000042", 42, 27, true},
      {"184467440737095516170", -1, 21, false},
  };
  // clang-format on
  for (const auto& c : cases) expectAtoi(c.text, c.value, c.end, c.fits);
}

TEST(Decimal, DottedScanCountsAndStoresAsSscanf) {
  constexpr int U = kUntouched;
  // clang-format off
  const struct { const char* text; Scan expected; } cases[] = {
      {"", {-1, {U, U, U, U, U}}}, {" \t", {-1, {U, U, U, U, U}}}, {"x", {0, {U, U, U, U, U}}},
      {"-", {0, {U, U, U, U, U}}}, {"- 5", {0, {U, U, U, U, U}}}, {"1.", {1, {1, U, U, U, U}}},
      {"1..2", {1, {1, U, U, U, U}}}, {"1 .2.3.4", {1, {1, U, U, U, U}}},
      {"1. 2.3.4", {4, {1, 2, 3, 4, U}}}, {"+1.-2.\n3.4/ +5", {5, {1, -2, 3, 4, 5}}},
      {"1.2.3.4/", {4, {1, 2, 3, 4, U}}}, {"1.2.3.4/ ", {4, {1, 2, 3, 4, U}}},
      {"1.2.3.4/x", {4, {1, 2, 3, 4, U}}}, {"1.2.3.4.5", {4, {1, 2, 3, 4, U}}},
      {"1.2.3.4/8/9", {5, {1, 2, 3, 4, 8}}}, {"1.2.3", {3, {1, 2, 3, U, U}}},
      {"4294967306.1.2.3/99999999999999999999", {5, {10, 1, 2, 3, -1}}},
      {"1.2.3.4/-99999999999999999999", {5, {1, 2, 3, 4, 0}}},
      {"2147483648.-2147483649.0.0/4294967304", {5, {INT_MIN, INT_MAX, 0, 0, 8}}},
  };
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, scan(c.text)) << '"' << c.text << '"';
    if (kHostIsReference) {
      EXPECT_EQ(hostScan(c.text), scan(c.text)) << '"' << c.text << '"';
    }
  }
}

// Random text of blanks, signs, separators and digit runs of every length.
TEST(Decimal, MatchesTheHostCLibraryOnRandomText) {
  if (!kHostIsReference) GTEST_SKIP() << "the host's C library is not the 64-bit reference";
  static const char* const kPieces[] = {" ", "\t", "+", "-", ".", "/", "x", "0"};
  std::mt19937 rng(11);
  for (int i = 0; i < 20000; ++i) {
    std::string s;
    for (int k = 0, n = static_cast<int>(rng() % 12); k < n; ++k) {
      if (rng() % 3) {
        s += kPieces[rng() % std::size(kPieces)];
      } else {
        for (int d = 1 + static_cast<int>(rng() % 24); d > 0; --d)
          s += static_cast<char>('0' + rng() % 10);
      }
    }
    char* end = nullptr;
    std::strtol(s.c_str(), &end, 10);
    ASSERT_EQ(std::atoi(s.c_str()), readDecimal(s.c_str()).value) << s;
    ASSERT_EQ(end, readDecimal(s.c_str()).end) << s;
    ASSERT_EQ(hostScan(s.c_str()), scan(s.c_str())) << s;
  }
}

// Prefixes beyond 32 bits, as the normalisation sees them (cidr_test's dotted
// model covers the address numbers, against these same 64-bit readings).
TEST(Decimal, LongPrefixesWrapAsOn64Bit) {
  using namespace tpa::cidr;
  EXPECT_EQ("010.000.000.000/08", expandIpv4Addr("10.0.0.0/4294967304"));
  EXPECT_EQ(4, isCidrIpAddress("10.0.0.0/4294967304"));
  EXPECT_EQ(4, isCidrIpAddress("1.2.3.4/-99999999999999999999"));  // the prefix reads as 0
  EXPECT_EQ(6, isCidrIpAddress("2001:db8::/4294967328"));          // atoi reads 32
  EXPECT_EQ("00001010", extractNetworkID("10.0.0.0/4294967304"));
}

// A whole document with such ids and addresses answers alike everywhere.
TEST(Decimal, DocumentWithLongNumbersAnswersAsOn64Bit) {
  const char kDocument[] =
      R"([{"match_apps": ["a"], "include": ["4294967306.0.0.1"], "id": "4294967306"},)"
      R"( {"match_apps": ["b"], "include": ["10.0.0.0/4294967304"], "id": "99999999999999999999"},)"
      R"( {"match_apps": ["c"], "include": ["c.test"], "id": "-99999999999999999999"},)"
      R"( {"match_apps": ["d"], "exclude": ["192.168.0.0/ +4294967312"], "id": " +4294967297"}])";
  tpa::api::TarnPatternAnalyzer analyzer;
  ASSERT_EQ(0, analyzer.build(kDocument, false));
  // clang-format off
  const struct { const char* app; const char* destination; int decision; int value; } cases[] = {
      {"a", "10.0.0.1", 1, 10}, {"a", "10.0.0.2", 0, -1}, {"b", "10.200.0.1", 1, -1},
      {"b", "11.0.0.1", 0, -1}, {"c", "c.test", 1, 0}, {"d", "192.168.5.5", 0, 1},
      {"d", "192.169.0.1", 1, 1},  // the default include "*"
  };
  // clang-format on
  for (const auto& c : cases) {
    int value = kUntouched;
    const int decision = analyzer.query(c.app, c.destination, value);
    EXPECT_EQ(c.decision, decision) << c.app << " " << c.destination;
    EXPECT_EQ(c.value, value) << c.app << " " << c.destination;
  }
}

}  // namespace
