// Address recognition and normalisation, and the decimal reading under it:
// numbers written with more digits than 32 bits hold read as 64-bit glibc
// reads them, on every architecture. The tables hold those answers; where the
// host's own C library is that reference (64-bit long, glibc) random text is
// checked against it.
#include "cidr/cidr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "cidr/address_bits.h"
#include "cidr/decimal.h"

namespace {

using namespace tpa::cidr;

#if defined(__GLIBC__) && LONG_MAX == INT64_MAX
constexpr bool kHostIsReference = true;
#else
constexpr bool kHostIsReference = false;
#endif

constexpr int U = 77;  // a part the scan left untouched

// The count, then the five parts, as scanned by the library or by the host's sscanf.
std::vector<int> scan(const char* text, bool host = false) {
  int p[5] = {U, U, U, U, U};
  const int n = host ? std::sscanf(text, "%d.%d.%d.%d/%d", &p[0], &p[1], &p[2], &p[3], &p[4])
                     : scanDottedDecimals(text, p);
  return {n, p[0], p[1], p[2], p[3], p[4]};
}

const std::string kZeroIPv6 = "0000:0000:0000:0000:0000:0000:0000:0000";

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
  for (const auto& c : cases) {
    const tpa::cidr::DecimalReading r = readDecimal(c.text);
    EXPECT_EQ(std::tuple(c.value, c.end, c.fits), std::tuple(r.value, r.end - c.text, r.fitsInt))
        << '"' << c.text << '"';
  }
}

TEST(Decimal, DottedScanCountsAndStoresAsSscanf) {
  // clang-format off
  const struct { const char* text; std::vector<int> expected; } cases[] = {
      {"", {-1, U, U, U, U, U}}, {" \t", {-1, U, U, U, U, U}}, {"x", {0, U, U, U, U, U}},
      {"-", {0, U, U, U, U, U}}, {"- 5", {0, U, U, U, U, U}}, {"1.", {1, 1, U, U, U, U}},
      {"1..2", {1, 1, U, U, U, U}}, {"1 .2.3.4", {1, 1, U, U, U, U}},
      {"1. 2.3.4", {4, 1, 2, 3, 4, U}}, {"+1.-2.\n3.4/ +5", {5, 1, -2, 3, 4, 5}},
      {"1.2.3.4/", {4, 1, 2, 3, 4, U}}, {"1.2.3.4/ ", {4, 1, 2, 3, 4, U}},
      {"1.2.3.4/x", {4, 1, 2, 3, 4, U}}, {"1.2.3.4.5", {4, 1, 2, 3, 4, U}},
      {"1.2.3.4/8/9", {5, 1, 2, 3, 4, 8}}, {"1.2.3", {3, 1, 2, 3, U, U}},
      {"4294967306.1.2.3/99999999999999999999", {5, 10, 1, 2, 3, -1}},
      {"1.2.3.4/-99999999999999999999", {5, 1, 2, 3, 4, 0}},
      {"2147483648.-2147483649.0.0/4294967304", {5, INT_MIN, INT_MAX, 0, 0, 8}},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(c.expected, scan(c.text)) << '"' << c.text << '"';
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
    errno = 0;
    const long wide = std::strtol(s.c_str(), &end, 10);
    const bool fits = errno != ERANGE && wide >= INT_MIN && wide <= INT_MAX;
    const tpa::cidr::DecimalReading r = readDecimal(s.c_str());
    ASSERT_EQ(std::tuple(std::atoi(s.c_str()), end, fits), std::tuple(r.value, r.end, r.fitsInt))
        << s;
    ASSERT_EQ(scan(s.c_str(), true), scan(s.c_str())) << s;
  }
}

// Dotted quads ignore trailing text; IPv6 is whatever inet_pton accepts; a
// network needs a prefix in range and an address before it.
TEST(Cidr, RecognisesAddressesAndNetworks) {
  // clang-format off
  const struct { const char* input; int address, network; } cases[] = {  // 4, 6 or 0 for none
      {"192.168.1.1", 4, 0}, {"300.1.1.1", 0, 0}, {"::1", 6, 0}, {"10.0.0.0/8", 4, 4},
      {"10.0.0.0/33", 4, 0}, {"10.0.0.0/0", 4, 4}, {"10.0.0.0/32", 4, 4}, {"10.0.0.0/-1", 4, 0},
      {"10.0.0.0/8/9", 4, 4}, {"300.0.0.0/8", 0, 0}, {"2001:db8::/32", 0, 6}, {"::/0", 0, 6},
      {"ABCD::/16", 0, 6}, {"::1/128", 0, 6}, {"::1/129", 0, 0}, {"fe80::/x", 0, 0},
      {"abc/8", 0, 0}, {"2001:db8::/-1", 0, 0}, {"::/4294967296", 0, 6},  // atoi wraps to 0
  };
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(c.address == 4, isIPv4Address(c.input)) << c.input;
    EXPECT_EQ(c.address == 6, isIPv6Address(c.input)) << c.input;
    EXPECT_EQ(c.address != 0, isIPAddress(c.input)) << c.input;
    EXPECT_EQ(c.network, isCidrIpAddress(c.input)) << c.input;
  }
}

TEST(Cidr, UnspecifiedAddressWritesTheFamilyZeroFormForAnyAddress) {
  // clang-format off
  const struct { const char* input; bool expected; std::string out; } cases[] = {
      {"0.0.0.0", true, "0.0.0.0"}, {"10.1.2.3", false, "0.0.0.0"}, {"::", true, kZeroIPv6},
      {"::1", false, kZeroIPv6}, {"0.0.0.0/8", false, "untouched"}, {"x", false, "untouched"}};
  // clang-format on
  for (const auto& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(c.expected, isUnspecifiedIPAddress(c.input, out)) << c.input;
    EXPECT_EQ(c.out, out) << c.input;
  }
}

TEST(Cidr, ThrowsTheTwoDocumentedExceptions) {
  for (const std::string s : {"face/", "1.2.3.4/", "::/", "9/", "X:/"})
    EXPECT_THROW(static_cast<void>(isCidrIpAddress(s)), std::out_of_range) << s;
  EXPECT_EQ(0, isCidrIpAddress("Zone/"));  // an upper-case start without ':' stops first
  EXPECT_THROW(static_cast<void>(extractNetworkID("2001:db8::/x")), std::invalid_argument);
  EXPECT_THROW(static_cast<void>(extractNetworkID("2001:db8::/")), std::invalid_argument);
  // Passes the network test (atoi wraps), then stoi finds it too large.
  EXPECT_THROW(static_cast<void>(extractNetworkID("2001:db8::/4294967296")), std::out_of_range);
}

// The random models below cover ordinary addresses and prefixes; these are the edges.
TEST(Cidr, RewritesTextIntoCanonicalForms) {
  EXPECT_EQ("abcd:0000:0000:0000:0000:0000:0000:00ef", expandIPv6("ABCD::EF"));
  EXPECT_EQ("example.com", expandIPv6("example.com"));
  // clang-format off
  const std::pair<std::string, std::string> networks[] = {
      {"example.com", ""}, {"10.1.2.3/32", "10.1.2.3"}, {"10.0.0.0/0", "10.0.0.0"},
      {"10.1.2.3", "10.1.2.3"}, {"1.2.3.4/-5", ""}, {"::/ 8", "00000000"}, {"2001:db8::", ""},
      {"zz::/9", ""}, {"::1/-3", ""}, {"::/0", kZeroIPv6}, {"::1/200", std::string(127, '0') + "1"},
      {"::1/128", "0000:0000:0000:0000:0000:0000:0000:0001"}, {"10.1.2.3/64", std::string(32, '0')},
      {"10.1.2.3/40", "00001010" + std::string(24, '0')},  // masked by 40 mod 32
  };
  // clang-format on
  for (const auto& [input, id] : networks) EXPECT_EQ(id, extractNetworkID(input)) << input;
}

// Random addresses against a bit model of their bytes: the 16 bytes as IPv6,
// the first four as IPv4, both whole and cut to a random prefix.
TEST(Cidr, MatchesABitModelOnRandomAddresses) {
  std::mt19937 rng(7);
  for (int i = 0; i < 500; ++i) {
    in6_addr addr;
    for (auto& byte : addr.s6_addr) byte = static_cast<unsigned char>(rng());
    std::string bits, v4 = std::to_string(addr.s6_addr[0]);
    for (int k = 0; k < 128; ++k) bits += (addr.s6_addr[k / 8] >> (7 - k % 8)) & 1 ? '1' : '0';
    for (int k = 1; k < 4; ++k) v4 += "." + std::to_string(addr.s6_addr[k]);
    char text[INET6_ADDRSTRLEN];
    ASSERT_NE(nullptr, inet_ntop(AF_INET6, &addr, text, sizeof text));
    const int p = 1 + static_cast<int>(rng() % 127);
    std::string expanded = text;
    ASSERT_TRUE(expandIPv6Into(expanded, expanded));  // in place
    // As C strings too: the text ends where the string does.
    ASSERT_STREQ(bits.c_str(), ipv6toBinary(&addr).c_str());
    ASSERT_STREQ(bits.c_str(), convertToBinaryIPAddress(expanded).c_str());
    ASSERT_EQ(bits.substr(0, p), extractNetworkID(std::string(text) + "/" + std::to_string(p)));
    ASSERT_EQ(bits.substr(0, p % 31 + 1), extractNetworkID(v4 + "/" + std::to_string(p % 31 + 1)));
    // Bits back to text, and the same IPv4 address mapped into IPv6.
    ASSERT_EQ(text, bitsToAddress(bits, kIPv6Bits));
    ASSERT_EQ(v4, bitsToAddress(bits, kIPv4Bits));  // cut at the width
    ASSERT_EQ(std::to_string(addr.s6_addr[0]) + ".0.0.0",
              bitsToAddress(bits.substr(0, 8), kIPv4Bits));
    const std::string mapped = expandIPv6("::ffff:" + v4);
    ASSERT_TRUE(isIPv4MappedText(mapped) && isIPv4MappedBits(convertToBinaryIPAddress(mapped)));
    ASSERT_EQ(v4, mappedIPv4(mapped));
    ASSERT_EQ(isIPv4MappedText(expanded), isIPv4MappedBits(bits));
    ASSERT_TRUE(isBitString(bits) && !isBitString(expanded) && !isBitString(""));
  }
}

// The dotted forms written the plain way, with one sscanf and one snprintf, as
// the model for odd text (signs, blanks, long digit runs, trailing text): the
// expanded text and the bits, which are empty for no dotted quad.
std::pair<std::string, std::string> modelDotted(const std::string& s) {
  // sscanf where the host's C library is the 64-bit reference, else its
  // portable equivalent, which the Decimal tables hold to the 64-bit answers.
  const std::vector<int> scanned = scan(s.c_str(), kHostIsReference);
  const int n = scanned[0];
  const int* v = &scanned[1];
  if (n != 4 && n != 5) return {s, ""};
  char text[64];  // without a prefix, the same text up to its '/'
  std::snprintf(text, sizeof text, "%03d.%03d.%03d.%03d/%02d", v[0], v[1], v[2], v[3],
                std::min(v[4], 32));
  const std::string padded = text;
  std::string bits;
  const bool v4 = s[0] >= '0' && s[0] <= '9' &&
                  std::all_of(v, v + 4, [](int x) { return static_cast<unsigned>(x) <= 255; });
  for (int k = 0; v4 && k < 32; ++k) bits += (v[k / 8] >> (7 - k % 8)) & 1 ? '1' : '0';
  return {padded.substr(0, n == 5 ? 18 : std::min<std::size_t>(15, padded.find('/'))), bits};
}

// Near-addresses: numbers of every width joined mostly by dots, sometimes by
// other characters, with signs, blanks, prefixes and trailing text.
std::string randomDotted(std::mt19937& rng) {
  // clang-format off
  static const char* const kNumbers[] = {"0", "7", "10", "255", "256", "08", "40", "", "123456789",
                                         "1234567890", "99999999999", "4294967296"};
  // clang-format on
  static const char* const kNoise[] = {"-", "+", " ", "x", "/", ".", ":"};
  const auto pick = [&rng](const auto& from) { return std::string(from[rng() % std::size(from)]); };
  std::string s;
  for (int k = 0, fields = 3 + static_cast<int>(rng() % 3); k < fields; ++k) {
    if (k > 0) s += rng() % 8 ? (k == 4 ? "/" : ".") : pick(kNoise);
    if (rng() % 10 == 0) s += pick(kNoise);
    s += pick(kNumbers);
  }
  return rng() % 4 ? s : s + pick(kNoise) + pick(kNumbers);
}

// Also: the *Into variants write the same bytes, even in place.
TEST(Cidr, DottedFormsMatchTheSscanfModelOnRandomText) {
  // First the texts that the plain fast path must hand to the full scan.
  const char* const edges[] = {"...", ".1.2.3", "1/2.3.4.5", "1.2.3.4.5", "1.2.3.4/5/6"};
  std::mt19937 rng(3);
  int accepted = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::string s = i < 5 ? edges[i] : randomDotted(rng);
    const auto [expanded, bits] = modelDotted(s);
    accepted += !bits.empty();
    ASSERT_EQ(!bits.empty(), isIPv4Address(s)) << s;
    ASSERT_EQ(expanded, expandIpv4Addr(s)) << s;
    ASSERT_EQ(bits, convertToBinaryIPAddress(s)) << s;
    std::string padded = s, binary = s;
    expandIpv4AddrInto(padded, padded);
    convertToBinaryIPAddressInto(binary, binary);
    ASSERT_EQ(std::make_pair(expanded, bits), std::make_pair(padded, binary)) << s;
  }
  EXPECT_GT(accepted, 500);  // the generator reaches the address forms
}

// A query's destination read once: what the separate steps give (IPv6 expanded, else a dotted
// quad padded, then the address test and the bits of the result), on addresses, networks, odd
// dotted text and names.
TEST(Cidr, CanonicalQueryIsTheStepsInOne) {
  std::mt19937 rng(5);
  const char* const fixed[] = {"::1", "::ffff:1.2.3.4", "1::/64", "a.test", "", "face", ":"};
  for (int i = 0; i < 20000; ++i) {
    std::string s = i < 7 ? fixed[i] : randomDotted(rng);
    if (i % 3 == 1) {
      in6_addr addr;
      for (auto& byte : addr.s6_addr) byte = static_cast<unsigned char>(rng() % 3 ? 0 : rng());
      char text[INET6_ADDRSTRLEN];
      ASSERT_NE(nullptr, inet_ntop(AF_INET6, &addr, text, sizeof text));
      s = text;
    }
    std::string steps;
    if (!expandIPv6Into(steps, s) && isIPv4Address(s)) expandIpv4AddrInto(steps, s);
    const bool address = isIPAddress(steps);
    const std::string bits = address ? convertToBinaryIPAddress(steps) : "";
    std::string text = "old", oneBits = "old";
    ASSERT_EQ(address, canonicalQueryInto(text, oneBits, s)) << s;
    ASSERT_EQ(steps, text) << s;
    ASSERT_EQ(bits, oneBits) << s;
  }
}

}  // namespace
