#include "cidr/decimal.h"

#include <cstdint>

namespace tpa::cidr {
namespace {

bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

const char* skipSpace(const char* c) {
  while (isSpace(*c)) ++c;
  return c;
}

constexpr std::uint64_t kInt64Max = 0x7fffffffffffffffu;

// An optional sign and digits at `at`, as strtol reads them with a 64-bit
// long; no white space is skipped here.
DecimalReading readSigned(const char* at) {
  DecimalReading r;
  r.end = at;
  const char* c = at;
  const bool negative = *c == '-';
  if (*c == '-' || *c == '+') ++c;
  if (!isDigit(*c)) return r;
  // Past both limits the magnitude stays at kTooLarge, which cannot overflow.
  constexpr std::uint64_t kTooLarge = kInt64Max + 2;
  std::uint64_t magnitude = 0;
  for (; isDigit(*c); ++c) {
    const unsigned digit = static_cast<unsigned>(*c - '0');
    magnitude = magnitude > kTooLarge / 10 ? kTooLarge : magnitude * 10 + digit;
    if (magnitude > kTooLarge) magnitude = kTooLarge;
  }
  r.end = c;
  // The 64-bit long, as two's complement bits.
  std::uint64_t bits;
  if (negative) {
    bits = magnitude > kInt64Max + 1 ? kInt64Max + 1 : 0 - magnitude;
  } else {
    bits = magnitude > kInt64Max ? kInt64Max : magnitude;
  }
  // int keeps the low 32 bits of the long.
  r.value = static_cast<int>(static_cast<std::uint32_t>(bits));
  r.fitsInt = negative ? magnitude <= 0x80000000u : magnitude <= 0x7fffffffu;
  return r;
}

}  // namespace

DecimalReading readDecimal(const char* text) {
  const char* start = skipSpace(text);
  DecimalReading r = readSigned(start);
  if (r.end == start) r.end = text;  // no number: strtol's end is the text itself
  return r;
}

int scanDottedDecimals(const char* text, int (&parts)[5]) {
  static constexpr char kSeparators[] = "..../";
  const char* c = text;
  for (int k = 0; k < 5; ++k) {
    if (k > 0) {
      if (*c != kSeparators[k]) return k;
      ++c;
    }
    c = skipSpace(c);
    if (*c == '\0') return k > 0 ? k : -1;
    const DecimalReading r = readSigned(c);
    if (r.end == c) return k;
    parts[k] = r.value;
    c = r.end;
  }
  return 5;
}

}  // namespace tpa::cidr
