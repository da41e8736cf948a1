// JSON string literals for the tool's machine-readable output, always valid
// UTF-8. '"', '\' and bytes below 0x20 are escaped; well-formed UTF-8
// sequences are copied as they are; every byte that is not part of one is
// written as \u00XX of its value. Since valid characters are never escaped,
// an escape from \u0080 to \u00ff always stands for one such raw byte, so
// what the analyzer stores can still be read back exactly. Stateless.
#ifndef TPA_TOOLS_JSON_ESCAPE_H_
#define TPA_TOOLS_JSON_ESCAPE_H_

#include <string>
#include <string_view>
#include <vector>

namespace tpa::tools {

// Appends `text` as a quoted JSON string to `out`.
void appendJsonString(std::string& out, std::string_view text);

// Appends `list` as a JSON array of strings to `out`, each string after
// `indent` (a line break and blanks, for a document people read).
void appendJsonStringArray(std::string& out, const std::vector<std::string>& list,
                           std::string_view indent = "");

}  // namespace tpa::tools

#endif  // TPA_TOOLS_JSON_ESCAPE_H_
