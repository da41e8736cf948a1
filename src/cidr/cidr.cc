#include "cidr/cidr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "cidr/address_bits.h"
#include "cidr/decimal.h"

namespace tpa::cidr {
namespace {

constexpr char kUnspecifiedIPv4[] = "0.0.0.0";
constexpr char kUnspecifiedIPv6[] = "0000:0000:0000:0000:0000:0000:0000:0000";
constexpr std::size_t kIPv6TextLength = 39;
constexpr int kPaddedAddressLength = 15;
constexpr int kPaddedNetworkLength = 18;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLowerHex(char c) { return c >= 'a' && c <= 'f'; }

// The four octets and the prefix of "a.b.c.d/p", each 0 until sscanf sets it.
struct Dotted {
  int part[5] = {0, 0, 0, 0, 0};
  // What sscanf returned; 0 when the text cannot hold four numbers. Callers
  // only tell 4 and 5 from everything else.
  int count = 0;

  int prefix() const { return part[4]; }
  bool octetsInRange() const {
    return std::all_of(part, part + 4, [](int v) { return static_cast<unsigned>(v) <= 255u; });
  }
  std::uint32_t address() const {
    return (static_cast<std::uint32_t>(part[0]) << 24) |
           (static_cast<std::uint32_t>(part[1]) << 16) |
           (static_cast<std::uint32_t>(part[2]) << 8) | static_cast<std::uint32_t>(part[3]);
  }
};

// sscanf can only convert four numbers past three dots (before any NUL, where
// it stops). Skipping it otherwise keeps domain and IPv6 queries cheap.
bool mayHoldFourNumbers(const std::string& s) {
  const char* text = s.c_str();
  int dots = 0;
  for (const char* c = text; *c != '\0' && dots < 3; ++c) dots += (*c == '.');
  return dots == 3;
}

// Reads the plain forms "a.b.c.d" and "a.b.c.d/p" (runs of at most nine
// digits, nothing else up to the end of the C string) directly. False defers
// to the full sscanf-style scan.
bool scanPlainDotted(const char* c, Dotted& d) {
  for (int k = 0; k < 5; ++k) {
    int digits = 0;
    int value = 0;
    for (; isDigit(*c); ++c) {
      if (++digits > 9) return false;
      value = value * 10 + (*c - '0');
    }
    if (digits == 0) return false;
    d.part[k] = value;
    d.count = k + 1;
    if (*c == '\0') return k >= 3;
    if (k == 4 || *c != (k < 3 ? '.' : '/')) return false;
    ++c;
  }
  return false;
}

// One scan reads both the address and a prefix; the first four conversions
// of "%d.%d.%d.%d/%d" are exactly those of "%d.%d.%d.%d", so a count of 4 or
// 5 is what the plain four-number scan would call success.
Dotted scanDotted(const std::string& s) {
  Dotted d;
  if (!mayHoldFourNumbers(s) || scanPlainDotted(s.c_str(), d)) return d;
  d = Dotted();
  d.count = scanDottedDecimals(s.c_str(), d.part);
  return d;
}

// The dotted-quad test; the scan is left in d for callers that use the numbers.
bool scanDottedQuad(const std::string& s, Dotted& d) {
  if (s.empty() || !isDigit(s[0])) return false;
  d = scanDotted(s);
  return d.count >= 4 && d.octetsInRange();
}

// inet_pton(AF_INET6) over the text [begin, begin + length), which need not be
// NUL-terminated. Short texts (every valid one) are copied to the stack.
bool parseIPv6(const char* begin, std::size_t length, in6_addr* addr) {
  // Every IPv6 text has a colon; most destinations are names, and the
  // parser would read a name's leading hex digits first.
  if (std::memchr(begin, ':', length) == nullptr) return false;
  char buffer[64];
  if (length < sizeof buffer) {
    std::memcpy(buffer, begin, length);
    buffer[length] = '\0';
    return inet_pton(AF_INET6, buffer, addr) == 1;
  }
  const std::string copy(begin, length);
  return inet_pton(AF_INET6, copy.c_str(), addr) == 1;
}

bool parseIPv6(const std::string& s, in6_addr* addr) { return parseIPv6(s.data(), s.size(), addr); }

// The eight bit characters of every byte value, most significant first.
struct ByteBits {
  char of[256][8];
};
constexpr ByteBits makeByteBits() {
  ByteBits table{};
  for (int v = 0; v < 256; ++v) {
    for (int i = 0; i < 8; ++i) table.of[v][i] = static_cast<char>('0' + ((v >> (7 - i)) & 1));
  }
  return table;
}
constexpr ByteBits kByteBits = makeByteBits();

void putByteBits(char* at, unsigned char byte) { std::memcpy(at, kByteBits.of[byte], 8); }

void writeIPv4Bits(std::string& out, std::uint32_t value) {
  out.resize(kIPv4Bits);
  for (int i = 0; i < 4; ++i)
    putByteBits(&out[8 * i], static_cast<unsigned char>(value >> (24 - 8 * i)));
}

void writeIPv6Bits(std::string& out, const in6_addr& addr) {
  out.resize(kIPv6Bits);
  for (int i = 0; i < 16; ++i) putByteBits(&out[8 * i], addr.s6_addr[i]);
}

void writeIPv6Text(std::string& out, const in6_addr& addr) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.resize(kIPv6TextLength);
  std::size_t at = 0;
  for (int i = 0; i < 16; ++i) {
    if (i > 0 && i % 2 == 0) out[at++] = ':';
    out[at++] = kHex[addr.s6_addr[i] >> 4];
    out[at++] = kHex[addr.s6_addr[i] & 0xf];
  }
}

// The first min(limit, count) characters of bits; a negative count keeps none.
std::string leadingBits(const std::string& bits, int count, int limit) {
  return bits.substr(0, static_cast<std::size_t>(std::max(0, std::min(limit, count))));
}

std::string ipv4NetworkID(const std::string& s, const Dotted& d) {
  const int p = d.prefix();
  if (p == 0 || p == kIPv4Bits) return s.substr(0, s.find('/'));
  const int maskBits = p % kIPv4Bits;  // negative for a negative prefix: no bits kept
  const std::uint32_t mask = maskBits > 0 ? ~std::uint32_t{0} << (kIPv4Bits - maskBits) : 0;
  std::string bits;
  writeIPv4Bits(bits, d.address() & mask);
  return leadingBits(bits, p, kIPv4Bits);
}

void clearBitsPast(in6_addr& addr, int keep) {
  for (int i = 0; i < 16; ++i) {
    const long long kept = std::clamp(static_cast<long long>(keep) - 8 * i, 0LL, 8LL);
    addr.s6_addr[i] &= static_cast<std::uint8_t>(0xff00u >> kept);
  }
}

std::string ipv6NetworkID(const std::string& s) {
  const std::size_t slash = s.find('/');
  if (slash == std::string::npos) return std::string();
  const int p = std::stoi(s.substr(slash + 1), nullptr, 10);  // throws on non-numeric text
  if (p == 0 || p == kIPv6Bits) return s.substr(0, slash);
  in6_addr addr;
  if (!parseIPv6(s.data(), slash, &addr)) return std::string();
  clearBitsPast(addr, p);
  return leadingBits(ipv6toBinary(&addr), p, kIPv6Bits);
}

}  // namespace

bool isIPv4Address(const std::string& s) {
  Dotted d;
  return scanDottedQuad(s, d);
}

bool isIPv6Address(const std::string& s) {
  in6_addr addr;
  return parseIPv6(s, &addr);
}

bool isIPAddress(const std::string& s) { return isIPv4Address(s) || isIPv6Address(s); }

bool isUnspecifiedIPAddress(const std::string& s, std::string& out) {
  in_addr v4;
  if (inet_pton(AF_INET, s.c_str(), &v4) == 1) {
    out = kUnspecifiedIPv4;
    return v4.s_addr == 0;
  }
  in6_addr v6;
  if (!parseIPv6(s, &v6)) return false;
  out = kUnspecifiedIPv6;
  return std::all_of(std::begin(v6.s6_addr), std::end(v6.s6_addr),
                     [](unsigned char b) { return b == 0; });
}

int isCidrIpAddress(const std::string& s) {
  const std::size_t slash = s.find('/');
  if (s.empty() || slash == std::string::npos) return 0;
  if (!isDigit(s[0]) && !isLowerHex(s[0]) && s.find(':') == std::string::npos) return 0;
  const Dotted d = scanDotted(s);
  if (d.count == 5 && d.octetsInRange() && static_cast<unsigned>(d.prefix()) <= 32u) return 4;
  // The prefix text must have a first character: a trailing '/' throws
  // std::out_of_range here, and callers leave that unhandled.
  if (!isDigit(s.at(slash + 1))) return 0;
  if (static_cast<unsigned>(decimalAtoi(s.c_str() + slash + 1)) > 128u) return 0;
  in6_addr addr;
  return parseIPv6(s.data(), slash, &addr) ? 6 : 0;
}

// "%0<width>d" of a non-negative value, written at `at`; returns the end.
char* putPadded(char* at, int value, int width) {
  char digits[10];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value > 0);
  for (int i = n; i < width; ++i) *at++ = '0';
  while (n > 0) *at++ = digits[--n];
  return at;
}

// "%03d.%03d.%03d.%03d" and, with a prefix, "/%02d" into buffer (room for
// five ints of any width); returns the length. snprintf only for negatives.
int formatPadded(char* buffer, std::size_t size, const Dotted& d, bool withPrefix) {
  const int parts = withPrefix ? 5 : 4;
  if (std::any_of(d.part, d.part + parts, [](int v) { return v < 0; })) {
    return withPrefix ? std::snprintf(buffer, size, "%03d.%03d.%03d.%03d/%02d", d.part[0],
                                      d.part[1], d.part[2], d.part[3], d.part[4])
                      : std::snprintf(buffer, size, "%03d.%03d.%03d.%03d", d.part[0], d.part[1],
                                      d.part[2], d.part[3]);
  }
  char* at = buffer;
  for (int k = 0; k < parts; ++k) {
    if (k > 0) *at++ = k < 4 ? '.' : '/';
    at = putPadded(at, d.part[k], k < 4 ? 3 : 2);
  }
  return static_cast<int>(at - buffer);
}

namespace {

// The padded forms keep the first 18 (with prefix) or 15 characters of the
// formatted text: what fits a 19- or 16-byte buffer with its terminator.
void writePadded(std::string& out, Dotted d) {
  const bool withPrefix = d.count == 5;
  if (withPrefix) d.part[4] = std::min(d.part[4], kIPv4Bits);
  char buffer[64];
  const int length = formatPadded(buffer, sizeof buffer, d, withPrefix);
  const int kept = withPrefix ? kPaddedNetworkLength : kPaddedAddressLength;
  out.assign(buffer, static_cast<std::size_t>(std::min(length, kept)));
}

}  // namespace

void expandIpv4AddrInto(std::string& out, const std::string& s) {
  const Dotted d = scanDotted(s);
  if (d.count != 4 && d.count != 5) {
    if (&out != &s) out = s;
    return;
  }
  writePadded(out, d);
}

std::string expandIpv4Addr(const std::string& s) {
  std::string out;
  expandIpv4AddrInto(out, s);
  return out;
}

bool expandIPv6Into(std::string& out, const std::string& s) {
  in6_addr addr;
  if (!parseIPv6(s, &addr)) {
    if (&out != &s) out = s;
    return false;
  }
  writeIPv6Text(out, addr);
  return true;
}

std::string expandIPv6(const std::string& s) {
  std::string out;
  expandIPv6Into(out, s);
  return out;
}

std::string ipv6toBinary(const in6_addr* addr) {
  std::string out;
  writeIPv6Bits(out, *addr);
  return out;
}

void convertToBinaryIPAddressInto(std::string& out, const std::string& s) {
  Dotted d;
  if (scanDottedQuad(s, d)) {
    writeIPv4Bits(out, d.address());
    return;
  }
  in6_addr addr;
  if (parseIPv6(s, &addr)) {
    writeIPv6Bits(out, addr);
  } else {
    out.clear();
  }
}

std::string convertToBinaryIPAddress(const std::string& s) {
  std::string out;
  convertToBinaryIPAddressInto(out, s);
  return out;
}

// What expandIPv6Into, then isIPv4Address and expandIpv4AddrInto, then
// isIPAddress and convertToBinaryIPAddressInto of the result give, from one
// parse: the expanded forms of an address are addresses again, of the same
// value (IPv6 text has no dot; a padded quad holds the octets it was read
// from, 0 to 255, in three digits each).
bool canonicalQueryInto(std::string& text, std::string& bits, const std::string& s) {
  in6_addr addr;
  if (parseIPv6(s, &addr)) {
    writeIPv6Text(text, addr);
    writeIPv6Bits(bits, addr);
    return true;
  }
  Dotted d;
  if (scanDottedQuad(s, d)) {
    writePadded(text, d);
    writeIPv4Bits(bits, d.address());
    return true;
  }
  text = s;
  bits.clear();
  return false;
}

std::string extractNetworkID(const std::string& s) {
  Dotted d;
  std::string r = scanDottedQuad(s, d) ? ipv4NetworkID(s, d) : ipv6NetworkID(s);
  // Only the text of a /0 or full-length IPv6 network is IPv6 text here; bit
  // strings and IPv4 text pass through unchanged.
  if (s.find('/') != std::string::npos && r.find('/') == std::string::npos) expandIPv6Into(r, r);
  return r;
}

}  // namespace tpa::cidr
