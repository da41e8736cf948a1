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
  Destination d = parseDestination(text);
  if (d.kind != Destination::kIPv4 && d.kind != Destination::kIPv6) {
    d.kind = Destination::kDomain;
    d.text = text;
  }
  return d;
}

}  // namespace tpa::bench
