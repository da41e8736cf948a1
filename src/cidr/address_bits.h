// Address widths and the bit strings a network is stored as: how wide each
// family's bit string is, what an IPv4-mapped IPv6 address looks like in the
// expanded and in the bit form, and a bit string read back as address text.
// Constants and stateless functions; any thread.
#ifndef TPA_CIDR_ADDRESS_BITS_H_
#define TPA_CIDR_ADDRESS_BITS_H_

#include <string>
#include <string_view>

namespace tpa::cidr {

inline constexpr int kIPv4Bits = 32;
inline constexpr int kIPv6Bits = 128;

// The first six groups of an IPv4-mapped address in expandIPv6's form.
inline constexpr std::string_view kIPv4MappedText = "0000:0000:0000:0000:0000:ffff:";

// `text` is a bit string, as a network is stored: '0's and '1's, at least one.
[[nodiscard]] bool isBitString(std::string_view text);

// `text` (expandIPv6's form) is an IPv4-mapped address.
[[nodiscard]] bool isIPv4MappedText(std::string_view text);

// `bits` (a stored IPv6 network) lies inside ::ffff:0:0/96.
[[nodiscard]] bool isIPv4MappedBits(std::string_view bits);

// The IPv4 address inside an IPv4-mapped expanded text, as "a.b.c.d".
[[nodiscard]] std::string mappedIPv4(std::string_view text);

// Bits (most significant first), padded with zeros to `width` (kIPv4Bits or
// kIPv6Bits) and cut there, as address text (inet_ntop's form).
[[nodiscard]] std::string bitsToAddress(std::string_view bits, int width);

}  // namespace tpa::cidr

#endif  // TPA_CIDR_ADDRESS_BITS_H_
