// Address normalisation: recognises IPv4/IPv6 addresses and networks in text
// and rewrites them into canonical forms the automata compare as plain strings
// (padded dotted IPv4, full lower-case IPv6 groups, '0'/'1' bit strings).
// Stateless free functions over the platform's inet_pton and the sscanf-style
// number scan of cidr/decimal.h (the same on every architecture); safe from
// any thread. Two malformed network forms make the standard library throw
// (std::out_of_range, std::invalid_argument); nothing here catches them.
#ifndef TPA_CIDR_CIDR_H_
#define TPA_CIDR_CIDR_H_

#include <netinet/in.h>

#include <string>

namespace tpa::cidr {

// Dotted-quad test: first character a digit, sscanf "%d.%d.%d.%d" converts
// four numbers, none above 255 read as unsigned. Trailing text is ignored, so
// "10.0.0.0/8" passes too: networks are recognised as addresses first.
[[nodiscard]] bool isIPv4Address(const std::string& s);

// inet_pton(AF_INET6) accepts s.
[[nodiscard]] bool isIPv6Address(const std::string& s);

[[nodiscard]] bool isIPAddress(const std::string& s);

// True when s is 0.0.0.0 or the all-zero IPv6 address. For any address `out`
// receives the unspecified text of its family ("0.0.0.0" or the 39-character
// zero form); for non-addresses `out` is left untouched.
[[nodiscard]] bool isUnspecifiedIPAddress(const std::string& s, std::string& out);

// 4 for an IPv4 network ("a.b.c.d/p", p 0-32), 6 for an IPv6 network
// ("addr/p", p 0-128), 0 otherwise. Throws std::out_of_range when a string
// that gets past the first tests ends with its first '/' ("face/").
[[nodiscard]] int isCidrIpAddress(const std::string& s);

// "%03d.%03d.%03d.%03d" (15 characters), or with a prefix clamped to at most
// 32 "%03d.%03d.%03d.%03d/%02d" cut to 18 characters; s unchanged when sscanf
// converts neither 4 nor 5 numbers. Octets are not range-checked here.
[[nodiscard]] std::string expandIpv4Addr(const std::string& s);
void expandIpv4AddrInto(std::string& out, const std::string& s);

// The 39-character "xxxx:...:xxxx" form of IPv6 text, or s unchanged.
// expandIPv6Into writes exactly what expandIPv6 returns and tells whether s
// was IPv6 text.
[[nodiscard]] std::string expandIPv6(const std::string& s);
bool expandIPv6Into(std::string& out, const std::string& s);

// The network part of a network: IPv4 and IPv6 prefixes become the first p
// bits of the masked address; /0 and the full-length prefix keep the address
// text (IPv6 text then fully expanded). Throws std::invalid_argument or
// std::out_of_range (std::stoi) for a non-numeric or huge IPv6 prefix.
[[nodiscard]] std::string extractNetworkID(const std::string& s);

// 32 bit characters for a dotted quad, 128 for IPv6 text, else empty.
[[nodiscard]] std::string convertToBinaryIPAddress(const std::string& s);
void convertToBinaryIPAddressInto(std::string& out, const std::string& s);

// A queried destination in the form stored addresses take, in one reading:
// `text` gets the expanded IPv6 text, else the padded dotted form of a dotted
// quad (expandIpv4Addr), else s; `bits` its address bits (as
// convertToBinaryIPAddress of `text`), else nothing. True for an address.
// `text` and `bits` must not be s.
bool canonicalQueryInto(std::string& text, std::string& bits, const std::string& s);

// The 16 bytes of addr, each most significant bit first: 128 characters.
[[nodiscard]] std::string ipv6toBinary(const in6_addr* addr);

// The *Into variants reuse out's capacity and may be given out == s.

}  // namespace tpa::cidr

#endif  // TPA_CIDR_CIDR_H_
