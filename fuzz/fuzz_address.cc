// The address functions on arbitrary text, against their invariants:
// - an expanded address re-parses to the same address (same bit string);
// - the *Into variants write exactly what the returning functions return;
// - a network ID is a prefix of the bits of every address inside the network.
// Only the two documented exceptions may escape, and only from their
// documented inputs: an empty prefix after the first '/' (std::out_of_range
// from isCidrIpAddress) and a non-numeric or out-of-int-range IPv6 prefix
// (std::invalid_argument / std::out_of_range from extractNetworkID).
#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

#include "cidr/cidr.h"
#include "fuzz_support.h"

namespace {

using tpa::fuzz::check;
namespace cidr = tpa::cidr;

// What std::stoi makes of the text after the first '/': 0 converts, 1 has no
// number (invalid_argument), 2 is outside int (out_of_range).
int prefixConversion(const std::string& s) {
  const std::string prefix = s.substr(s.find('/') + 1);
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(prefix.c_str(), &end, 10);
  if (end == prefix.c_str()) return 1;
  if (errno == ERANGE || value < INT_MIN || value > INT_MAX) return 2;
  return 0;
}

void checkExpansions(const std::string& s) {
  const bool v4 = cidr::isIPv4Address(s);
  if (v4) {
    const std::string e = cidr::expandIpv4Addr(s);
    check(cidr::isIPv4Address(e), "expanded IPv4 re-parses", s);
    check(cidr::convertToBinaryIPAddress(e) == cidr::convertToBinaryIPAddress(s),
          "expanded IPv4 is the same address", s);
    check(cidr::convertToBinaryIPAddress(s).size() == 32, "IPv4 has 32 bits", s);
  }
  if (!v4 && cidr::isIPv6Address(s)) {
    const std::string e = cidr::expandIPv6(s);
    check(e.size() == 39 && cidr::expandIPv6(e) == e, "expanded IPv6 is a fixed point", s);
    check(cidr::convertToBinaryIPAddress(e) == cidr::convertToBinaryIPAddress(s),
          "expanded IPv6 is the same address", s);
    check(cidr::convertToBinaryIPAddress(s).size() == 128, "IPv6 has 128 bits", s);
  }
  std::string t = s;
  cidr::expandIpv4AddrInto(t, t);
  check(t == cidr::expandIpv4Addr(s), "expandIpv4AddrInto in place", s);
  t = s;
  cidr::expandIPv6Into(t, t);
  check(t == cidr::expandIPv6(s), "expandIPv6Into in place", s);
  t = s;
  cidr::convertToBinaryIPAddressInto(t, t);
  check(t == cidr::convertToBinaryIPAddress(s), "convertToBinaryIPAddressInto in place", s);
  std::string out = "untouched";
  if (cidr::isUnspecifiedIPAddress(s, out)) {
    check(out == "0.0.0.0" || out == "0000:0000:0000:0000:0000:0000:0000:0000", "unspecified text",
          s);
  }
}

// Host parts to try inside a network: none, all ones and a value of s.
std::uint64_t hostPattern(const std::string& s, int which) {
  if (which == 0) return 0;
  if (which == 1) return ~std::uint64_t{0};
  return std::hash<std::string>()(s);
}

void checkIPv4Network(const std::string& s, const std::string& id) {
  int part[5] = {0, 0, 0, 0, 0};
  std::sscanf(s.c_str(), "%d.%d.%d.%d/%d", &part[0], &part[1], &part[2], &part[3], &part[4]);
  const int p = part[4];
  if (p <= 0 || p >= 32) return;
  check(static_cast<int>(id.size()) == p, "IPv4 network ID has prefix-length bits", s);
  const std::uint32_t mask = ~std::uint32_t{0} << (32 - p);
  const std::uint32_t net =
      (static_cast<std::uint32_t>(part[0]) << 24) | (static_cast<std::uint32_t>(part[1]) << 16) |
      (static_cast<std::uint32_t>(part[2]) << 8) | static_cast<std::uint32_t>(part[3]);
  for (int which = 0; which < 3; ++which) {
    const std::uint32_t a =
        (net & mask) | (static_cast<std::uint32_t>(hostPattern(s, which)) & ~mask);
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, (a >> 16) & 255, (a >> 8) & 255,
                  a & 255);
    check(cidr::convertToBinaryIPAddress(text).compare(0, id.size(), id) == 0,
          "IPv4 network ID prefixes an inside address", s);
  }
}

void checkIPv6Network(const std::string& s, const std::string& id) {
  const std::size_t slash = s.find('/');
  const int p = std::atoi(s.c_str() + slash + 1);
  if (p <= 0 || p >= 128) return;
  check(static_cast<int>(id.size()) == p, "IPv6 network ID has prefix-length bits", s);
  in6_addr addr;
  if (inet_pton(AF_INET6, s.substr(0, slash).c_str(), &addr) != 1) return;
  for (int which = 0; which < 3; ++which) {
    const std::uint64_t host = hostPattern(s, which);
    in6_addr inside = addr;
    for (int bit = p; bit < 128; ++bit) {
      const unsigned char m = static_cast<unsigned char>(0x80u >> (bit % 8));
      const bool one = (host >> (bit % 64)) & 1u;
      inside.s6_addr[bit / 8] = static_cast<unsigned char>(one ? inside.s6_addr[bit / 8] | m
                                                               : inside.s6_addr[bit / 8] & ~m);
    }
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &inside, text, sizeof text);
    check(cidr::convertToBinaryIPAddress(text).compare(0, id.size(), id) == 0,
          "IPv6 network ID prefixes an inside address", s);
  }
}

void checkNetwork(const std::string& s) {
  int kind = 0;
  try {
    kind = cidr::isCidrIpAddress(s);
  } catch (const std::out_of_range&) {
    check(s.find('/') == s.size() - 1, "isCidrIpAddress throws only for a trailing first '/'", s);
  }
  std::string id;
  try {
    id = cidr::extractNetworkID(s);
  } catch (const std::invalid_argument&) {
    check(!cidr::isIPv4Address(s) && prefixConversion(s) == 1, "invalid_argument: no prefix", s);
    return;
  } catch (const std::out_of_range&) {
    check(!cidr::isIPv4Address(s) && prefixConversion(s) == 2, "out_of_range: huge prefix", s);
    return;
  }
  if (kind == 4 && cidr::isIPv4Address(s)) checkIPv4Network(s, id);
  if (kind == 6 && !cidr::isIPv4Address(s)) checkIPv6Network(s, id);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string s(reinterpret_cast<const char*>(data), size);
  checkExpansions(s);
  checkNetwork(s);
  return 0;
}
