// JSON string literals for the tool's machine-readable output. Only '"', '\'
// and bytes below 0x20 are escaped; every other byte, including bytes of
// UTF-8 sequences and invalid ones, is copied as it is, so that what the
// analyzer stores can be read back exactly. Stateless.
#ifndef TPA_TOOLS_JSON_ESCAPE_H_
#define TPA_TOOLS_JSON_ESCAPE_H_

#include <string>
#include <string_view>
#include <vector>

namespace tpa::tools {

// Appends `text` as a quoted JSON string to `out`.
void appendJsonString(std::string& out, std::string_view text);

// Appends `list` as a JSON array of strings to `out`.
void appendJsonStringArray(std::string& out, const std::vector<std::string>& list);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_JSON_ESCAPE_H_
