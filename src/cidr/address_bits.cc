#include "cidr/address_bits.h"

#include <arpa/inet.h>

#include <cstdlib>

namespace tpa::cidr {
namespace {

constexpr std::size_t kMappedZeroBits = 80;
constexpr std::size_t kMappedOneBits = 16;

// The 16-bit group of expanded IPv6 text that starts at `at`.
unsigned long group(std::string_view text, std::size_t at) {
  return std::strtoul(std::string(text.substr(at, 4)).c_str(), nullptr, 16);
}

}  // namespace

bool isBitString(std::string_view text) {
  return !text.empty() && text.find_first_not_of("01") == std::string_view::npos;
}

bool isIPv4MappedText(std::string_view text) {
  return text.substr(0, kIPv4MappedText.size()) == kIPv4MappedText;
}

bool isIPv4MappedBits(std::string_view bits) {
  if (bits.size() < kMappedZeroBits + kMappedOneBits) return false;
  return bits.find_first_not_of('0') == kMappedZeroBits &&
         bits.find_first_not_of('1', kMappedZeroBits) >= kMappedZeroBits + kMappedOneBits;
}

std::string mappedIPv4(std::string_view text) {
  const unsigned long high = group(text, kIPv4MappedText.size());
  const unsigned long low = group(text, kIPv4MappedText.size() + 5);
  return std::to_string(high >> 8) + "." + std::to_string(high & 0xff) + "." +
         std::to_string(low >> 8) + "." + std::to_string(low & 0xff);
}

std::string bitsToAddress(std::string_view bits, int width) {
  unsigned char bytes[kIPv6Bits / 8] = {};
  for (std::size_t i = 0; i < bits.size() && i < static_cast<std::size_t>(width); ++i) {
    if (bits[i] == '1') bytes[i / 8] |= static_cast<unsigned char>(0x80u >> (i % 8));
  }
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(width == kIPv4Bits ? AF_INET : AF_INET6, bytes, text, sizeof text);
  return text;
}

}  // namespace tpa::cidr
