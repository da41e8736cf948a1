#include "tools/json_escape.h"

namespace tpa::tools {
namespace {

// A control byte, or a byte outside well-formed UTF-8, as an escape: the
// short one JSON has for it, else \u00XX.
void appendEscaped(std::string& out, unsigned char c) {
  static constexpr std::string_view kShort("\b\f\n\r\t"), kLetters("bfnrt");
  static constexpr char kHex[] = "0123456789abcdef";
  out += '\\';
  if (const std::size_t k = kShort.find(static_cast<char>(c)); k != std::string_view::npos) {
    out += kLetters[k];
    return;
  }
  out += "u00";
  out += kHex[c >> 4];
  out += kHex[c & 0xf];
}

bool isContinuation(unsigned char c) { return (c & 0xc0) == 0x80; }

// The length of the well-formed UTF-8 sequence (RFC 3629: no overlong forms,
// no surrogates, nothing above U+10FFFF) that starts `text[i]`, a byte of
// 0x80 or more; 0 when none does.
std::size_t sequenceLength(std::string_view text, std::size_t i) {
  const auto lead = static_cast<unsigned char>(text[i]);
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xbf;  // the range of the second byte
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;
    if (lead == 0xed) high = 0x9f;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;
    if (lead == 0xf4) high = 0x8f;
  }
  if (length == 0 || i + length > text.size()) return 0;
  const auto second = static_cast<unsigned char>(text[i + 1]);
  if (second < low || second > high) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if (!isContinuation(static_cast<unsigned char>(text[i + k]))) return 0;
  }
  return length;
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += text[i];
    } else if (c < 0x20) {
      appendEscaped(out, c);
    } else if (c < 0x80) {
      out += text[i];
    } else if (const std::size_t n = sequenceLength(text, i)) {
      out.append(text, i, n);
      i += n - 1;
    } else {
      appendEscaped(out, c);
    }
  }
  out += '"';
}

void appendJsonStringArray(std::string& out, const std::vector<std::string>& list,
                           std::string_view indent) {
  out += '[';
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (i != 0) out += ',';
    out += indent;
    appendJsonString(out, list[i]);
  }
  out += ']';
}

}  // namespace tpa::tools
