// Address recognition and normalisation.
#include "cidr/cidr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using tpa::cidr::convertToBinaryIPAddress;
using tpa::cidr::expandIpv4Addr;
using tpa::cidr::expandIPv6;
using tpa::cidr::extractNetworkID;
using tpa::cidr::isCidrIpAddress;

const std::string kZeroIPv6 = "0000:0000:0000:0000:0000:0000:0000:0000";

// Dotted quads ignore trailing text; IPv6 is whatever inet_pton accepts.
TEST(Cidr, RecognisesAddressFamilies) {
  struct Case {
    std::string input;
    bool v4, v6;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"192.168.1.1", true, false}, {"300.1.1.1", false, false}, {"10.0.0.0/8", true, false},
      {"1.2.3.4xyz", true, false},  {"1.2.3.4/", true, false},   {"1.2.3", false, false},
      {"", false, false},           {"a.1.1.1", false, false},   {" 1.2.3.4", false, false},
      {"1.-2.3.4", false, false},   {"1.2.3.256", false, false}, {"1. 2.3.4", true, false},
      {"255.255.255.255", true, false}, {"0.0.0.0", true, false}, {"::1", false, true},
      {"2001:db8::1", false, true}, {"::", false, true},         {"::ffff:1.2.3.4", false, true},
      {"ABCD::1", false, true},     {"gggg::1", false, false},   {"2001:db8::/32", false, false}};
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(c.v4, tpa::cidr::isIPv4Address(c.input)) << c.input;
    EXPECT_EQ(c.v6, tpa::cidr::isIPv6Address(c.input)) << c.input;
    EXPECT_EQ(c.v4 || c.v6, tpa::cidr::isIPAddress(c.input)) << c.input;
  }
}

TEST(Cidr, UnspecifiedAddressWritesTheFamilyZeroForm) {
  struct Case {
    std::string input;
    bool expected;
    std::string out;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"0.0.0.0", true, "0.0.0.0"}, {"10.1.2.3", false, "0.0.0.0"}, {"::", true, kZeroIPv6},
      {"::1", false, kZeroIPv6},    {"0:0:0:0:0:0:0:0", true, kZeroIPv6},
      {"example.com", false, "untouched"}, {"0.0.0.0/8", false, "untouched"}};
  // clang-format on
  for (const auto& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(c.expected, tpa::cidr::isUnspecifiedIPAddress(c.input, out)) << c.input;
    EXPECT_EQ(c.out, out) << c.input;
  }
}

TEST(Cidr, ClassifiesNetworks) {
  struct Case {
    std::string input;
    int expected;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"10.0.0.0/8", 4},    {"10.0.0.0/33", 0},   {"2001:db8::/32", 6}, {"example.com", 0},
      {"", 0},              {"10.0.0.0", 0},      {"10.0.0.0/0", 4},    {"10.0.0.0/32", 4},
      {"300.0.0.0/8", 0},   {"ABCD::/16", 6},     {"Zone/8", 0},        {"::/0", 6},
      {"::1/128", 6},       {"::1/129", 0},       {"fe80::/x", 0},      {"2001:db8::/-1", 0},
      {"10.0.0.0/-1", 0},   {"abc/8", 0},         {"::/4294967296", 6}, {"Z:/8", 0},
      {"10.0.0.0/8/9", 4}};
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(c.expected, isCidrIpAddress(c.input)) << c.input;
}

TEST(Cidr, NetworkTestThrowsOutOfRangeForAnEmptyPrefix) {
  for (const std::string s : {"face/", "1.2.3.4/", "::/", "9/", "X:/"}) {
    EXPECT_THROW(static_cast<void>(isCidrIpAddress(s)), std::out_of_range) << s;
  }
  // A string that stops at the first-character test never reaches the split.
  EXPECT_EQ(0, isCidrIpAddress("Zone/"));
}

struct TextCase {
  std::string input;
  std::string expected;
};

TEST(Cidr, ExpandsIPv4ToPaddedText) {
  const std::vector<TextCase> cases = {
      {"10.1.2.3", "010.001.002.003"},
      {"10.0.0.0/8", "010.000.000.000/08"},
      {"10.0.0.0/40", "010.000.000.000/32"},
      {"1.2.3.4/", "001.002.003.004"},
      {"1.2.3.4/-5", "001.002.003.004/-5"},
      {"1.2.3.4/-50", "001.002.003.004/-5"},   // cut to 18 characters
      {"1000.2.3.4/8", "1000.002.003.004/0"},  // wide octets push the prefix out
      {"1000.2000.3.4", "1000.2000.003.0"},    // cut to 15 characters
      {"example.com", "example.com"},
      {"1.2.3", "1.2.3"},
      {"", ""}};
  for (const auto& c : cases) EXPECT_EQ(c.expected, expandIpv4Addr(c.input)) << c.input;
}

TEST(Cidr, ExpandsIPv6ToFullLowerCaseGroups) {
  const std::vector<TextCase> cases = {
      {"2001:db8::1", "2001:0db8:0000:0000:0000:0000:0000:0001"},
      {"example.com", "example.com"},
      {"::", kZeroIPv6},
      {"ABCD::EF", "abcd:0000:0000:0000:0000:0000:0000:00ef"},
      {"::ffff:1.2.3.4", "0000:0000:0000:0000:0000:ffff:0102:0304"},
      {"2001:db8::/32", "2001:db8::/32"}};
  for (const auto& c : cases) EXPECT_EQ(c.expected, expandIPv6(c.input)) << c.input;
}

TEST(Cidr, ExtractsNetworkIdentifiers) {
  const std::vector<TextCase> cases = {
      {"192.168.0.0/16", "1100000010101000"},
      {"10.1.2.3/32", "10.1.2.3"},
      {"2001:db8::/32", "00100000000000010000110110111000"},
      {"2001:db8::1/128", "2001:0db8:0000:0000:0000:0000:0000:0001"},
      {"10.0.0.0/0", "10.0.0.0"},
      {"::/0", kZeroIPv6},
      {"10.255.0.0/9", "000010101"},
      {"10.1.2.3", "10.1.2.3"},  // no prefix reads as 0
      {"10.1.2.3/40", "00001010000000000000000000000000"},
      {"10.1.2.3/64", std::string(32, '0')},
      {"1.2.3.4/-5", ""},
      {"2001:db8::", ""},  // IPv6 without a slash
      {"example.com", ""},
      {"2001:db8::1/200", "00100000000000010000110110111000" + std::string(95, '0') + "1"},
      {"ff80::/9", "111111111"},
      {"zz::/9", ""},         // not an address
      {"::/ 8", "00000000"},  // stoi skips blanks
      {"::1/-3", ""}};
  for (const auto& c : cases) EXPECT_EQ(c.expected, extractNetworkID(c.input)) << c.input;
}

TEST(Cidr, ExtractNetworkIDThrowsForNonNumericIPv6Prefix) {
  EXPECT_THROW(static_cast<void>(extractNetworkID("2001:db8::/x")), std::invalid_argument);
  EXPECT_THROW(static_cast<void>(extractNetworkID("2001:db8::/")), std::invalid_argument);
}

TEST(Cidr, WrappingPrefixPassesNetworkTestThenStoiThrows) {
  const std::string s = "2001:db8::/4294967296";
  ASSERT_EQ(6, isCidrIpAddress(s));
  EXPECT_THROW(static_cast<void>(extractNetworkID(s)), std::out_of_range);
}

TEST(Cidr, ConvertsAddressesToBitStrings) {
  const std::vector<TextCase> cases = {{"10.1.2.3", "00001010000000010000001000000011"},
                                       {"::1", std::string(127, '0') + "1"},
                                       {"example.com", ""},
                                       {"255.255.255.255", std::string(32, '1')},
                                       {"10.0.0.0/8", "00001010000000000000000000000000"},
                                       {"", ""},
                                       {"300.1.1.1", ""}};
  for (const auto& c : cases) EXPECT_EQ(c.expected, convertToBinaryIPAddress(c.input)) << c.input;
}

TEST(Cidr, Ipv6ToBinaryWritesEveryByteMostSignificantFirst) {
  in6_addr addr{};
  addr.s6_addr[0] = 0x80;
  addr.s6_addr[15] = 0x05;
  EXPECT_EQ("1" + std::string(124, '0') + "101", tpa::cidr::ipv6toBinary(&addr));
}

// Random dotted quads and IPv6 addresses against models built from inet_pton
// and snprintf.
TEST(Cidr, MatchesPlatformModelsOnRandomAddresses) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> octet(0, 255), prefix(1, 31);
  for (int i = 0; i < 500; ++i) {
    const int a = octet(rng), b = octet(rng), c = octet(rng), d = octet(rng), p = prefix(rng);
    const std::string ip = std::to_string(a) + "." + std::to_string(b) + "." + std::to_string(c) +
                           "." + std::to_string(d);
    const std::uint32_t value = (std::uint32_t(a) << 24) | (b << 16) | (c << 8) | d;
    std::string bits;
    for (int k = 31; k >= 0; --k) bits += ((value >> k) & 1) ? '1' : '0';
    ASSERT_EQ(bits, convertToBinaryIPAddress(ip));
    ASSERT_EQ(bits.substr(0, p), extractNetworkID(ip + "/" + std::to_string(p)));
    char padded[16];
    std::snprintf(padded, sizeof padded, "%03d.%03d.%03d.%03d", a, b, c, d);
    ASSERT_EQ(padded, expandIpv4Addr(ip));

    in6_addr addr;
    for (auto& byte : addr.s6_addr) byte = static_cast<unsigned char>(octet(rng));
    char text[INET6_ADDRSTRLEN];
    ASSERT_NE(nullptr, inet_ntop(AF_INET6, &addr, text, sizeof text));
    const std::string full = expandIPv6(text);
    const std::string v6bits = tpa::cidr::ipv6toBinary(&addr);
    ASSERT_EQ(39u, full.size());
    ASSERT_EQ(v6bits, convertToBinaryIPAddress(full));
    const int q = 1 + static_cast<int>(rng() % 127);
    ASSERT_EQ(v6bits.substr(0, q), extractNetworkID(std::string(text) + "/" + std::to_string(q)));
  }
}

// The dotted forms written the plain way, with one sscanf and one snprintf,
// as a model for odd text (signs, blanks, long digit runs).
bool modelIsIPv4(const std::string& s, unsigned v[4]) {
  return !s.empty() && s[0] >= '0' && s[0] <= '9' &&
         std::sscanf(s.c_str(), "%d.%d.%d.%d", reinterpret_cast<int*>(&v[0]),
                     reinterpret_cast<int*>(&v[1]), reinterpret_cast<int*>(&v[2]),
                     reinterpret_cast<int*>(&v[3])) == 4 &&
         v[0] <= 255 && v[1] <= 255 && v[2] <= 255 && v[3] <= 255;
}

std::string modelExpandIpv4(const std::string& s) {
  int v[5] = {0, 0, 0, 0, 0};
  const int n = std::sscanf(s.c_str(), "%d.%d.%d.%d/%d", &v[0], &v[1], &v[2], &v[3], &v[4]);
  if (n == 5) {
    char buffer[19];
    const int written = std::snprintf(buffer, sizeof buffer, "%03d.%03d.%03d.%03d/%02d", v[0], v[1],
                                      v[2], v[3], v[4] > 32 ? 32 : v[4]);
    return written < 0 ? "" : buffer;
  }
  if (n != 4) return s;
  char buffer[16];
  const int written =
      std::snprintf(buffer, sizeof buffer, "%03d.%03d.%03d.%03d", v[0], v[1], v[2], v[3]);
  return written < 0 ? "" : buffer;
}

// Near-addresses: numbers of every width joined mostly by dots, sometimes by
// other characters, with signs, blanks, prefixes and trailing text.
std::string randomDotted(std::mt19937& rng) {
  const std::vector<std::string> numbers = {"0",   "7",          "10",          "255",
                                            "256", "08",         "40",          "123456789",
                                            "",    "1234567890", "99999999999", "4294967296"};
  const std::vector<std::string> noise = {"-", "+", " ", "x", "/", ".", ":"};
  const auto pick = [&rng](const std::vector<std::string>& from) {
    return from[rng() % from.size()];
  };
  std::string s;
  const int fields = 3 + static_cast<int>(rng() % 3);
  for (int k = 0; k < fields; ++k) {
    if (k > 0) s += rng() % 8 ? (k == 4 ? "/" : ".") : pick(noise);
    if (rng() % 10 == 0) s += pick(noise);
    s += pick(numbers);
  }
  if (rng() % 4 == 0) s += pick(noise) + pick(numbers);
  return s;
}

TEST(Cidr, DottedFormsMatchSscanfModelOnRandomText) {
  std::mt19937 rng(3);
  int accepted = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::string s = randomDotted(rng);
    unsigned v[4] = {0, 0, 0, 0};
    const bool v4 = modelIsIPv4(s, v);
    accepted += v4;
    ASSERT_EQ(v4, tpa::cidr::isIPv4Address(s)) << s;
    ASSERT_EQ(modelExpandIpv4(s), expandIpv4Addr(s)) << s;
    std::string bits;
    for (int k = 0; v4 && k < 32; ++k) bits += ((v[k / 8] >> (7 - k % 8)) & 1) ? '1' : '0';
    ASSERT_EQ(bits, convertToBinaryIPAddress(s)) << s;
  }
  EXPECT_GT(accepted, 500);  // the generator reaches the address forms
}

TEST(Cidr, IntoVariantsWriteTheSameBytesAndAllowAliasing) {
  const std::vector<std::string> inputs = {"10.1.2.3",    "10.0.0.0/8", "2001:db8::1",
                                           "example.com", "",           "::ffff:1.2.3.4",
                                           "1.2.3",       "300.1.1.1"};
  for (const auto& s : inputs) {
    std::string out = "previous content that is long";
    tpa::cidr::expandIpv4AddrInto(out, s);
    EXPECT_EQ(expandIpv4Addr(s), out) << s;
    EXPECT_EQ(tpa::cidr::isIPv6Address(s), tpa::cidr::expandIPv6Into(out, s)) << s;
    EXPECT_EQ(expandIPv6(s), out) << s;
    tpa::cidr::convertToBinaryIPAddressInto(out, s);
    EXPECT_EQ(convertToBinaryIPAddress(s), out) << s;

    std::string self = s;
    tpa::cidr::expandIPv6Into(self, self);
    EXPECT_EQ(expandIPv6(s), self) << s;
    self = s;
    tpa::cidr::expandIpv4AddrInto(self, self);
    EXPECT_EQ(expandIpv4Addr(s), self) << s;
    self = s;
    tpa::cidr::convertToBinaryIPAddressInto(self, self);
    EXPECT_EQ(convertToBinaryIPAddress(s), self) << s;
  }
}

}  // namespace
