#include "peer_common.h"

#include <arpa/inet.h>

#include <cstring>

namespace tpa::bench {

namespace {

void maskHostBits(Destination& d, int width) {
  for (int i = 0; i < width / 8; ++i) {
    const int keep = d.prefix - 8 * i;
    if (keep >= 8) continue;
    d.address[i] = keep <= 0 ? 0 : static_cast<std::uint8_t>(d.address[i] & (0xff00u >> keep));
  }
}

// inet_pton's IPv4 form without its copy into a C string: four decimal parts
// of at most 255, separated by dots, without leading zeros.
bool parseIPv4(std::string_view s, std::array<std::uint8_t, 16>& out) {
  std::size_t i = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0 && (i >= s.size() || s[i++] != '.')) return false;
    const std::size_t start = i;
    unsigned value = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
      value = value * 10 + static_cast<unsigned>(s[i] - '0');
      if (value > 255) return false;
    }
    if (i == start || (i - start > 1 && s[start] == '0')) return false;
    out[part] = static_cast<std::uint8_t>(value);
  }
  return i == s.size();
}

}  // namespace

Destination parseDestination(std::string_view text) {
  Destination d;
  d.text = text;
  if (text.size() >= 2 && text[0] == '*' && text[1] == '.') {
    d.kind = Destination::kWildcard;
    d.text = text.substr(1);
    return d;
  }
  char buf[64];
  if (text.empty() || text.size() >= sizeof buf) return d;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';

  char* slash = std::strchr(buf, '/');
  if (slash) {
    *slash = '\0';
    int prefix = 0;
    for (const char* p = slash + 1; *p; ++p) {
      if (*p < '0' || *p > '9' || prefix > 128) return d;
      prefix = prefix * 10 + (*p - '0');
    }
    d.prefix = prefix;
    if (prefix <= 32 && inet_pton(AF_INET, buf, d.address.data()) == 1) {
      d.kind = Destination::kIPv4Net;
      maskHostBits(d, 32);
    } else if (prefix <= 128 && inet_pton(AF_INET6, buf, d.address.data()) == 1) {
      d.kind = Destination::kIPv6Net;
      maskHostBits(d, 128);
    }
    return d;
  }
  if (inet_pton(AF_INET, buf, d.address.data()) == 1) {
    d.kind = Destination::kIPv4;
  } else if (inet_pton(AF_INET6, buf, d.address.data()) == 1) {
    d.kind = Destination::kIPv6;
  }
  return d;
}

Destination parseQuery(std::string_view text) {
  Destination d;
  d.text = text;
  if (text.empty()) return d;
  const char last = text.back();
  if (last >= '0' && last <= '9' && parseIPv4(text, d.address)) {
    d.kind = Destination::kIPv4;
    return d;
  }
  char buf[64];
  if (text.find(':') == std::string_view::npos || text.size() >= sizeof buf) return d;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  d.address = {};
  if (inet_pton(AF_INET6, buf, d.address.data()) == 1) d.kind = Destination::kIPv6;
  return d;
}

}  // namespace tpa::bench
