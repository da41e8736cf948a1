#include "tools/json_escape.h"

namespace tpa::tools {
namespace {

// The short escapes JSON has for control bytes; 0 where it has none.
char shortEscape(unsigned char c) {
  switch (c) {
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

void appendControl(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '\\';
  if (char letter = shortEscape(c)) {
    out += letter;
    return;
  }
  out += "u00";
  out += kHex[c >> 4];
  out += kHex[c & 0xf];
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += ch;
    } else if (c < 0x20) {
      appendControl(out, c);
    } else {
      out += ch;
    }
  }
  out += '"';
}

void appendJsonStringArray(std::string& out, const std::vector<std::string>& list) {
  out += '[';
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (i != 0) out += ',';
    appendJsonString(out, list[i]);
  }
  out += ']';
}

}  // namespace tpa::tools
