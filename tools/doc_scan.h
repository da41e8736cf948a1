// DocumentScan is what the library's JSON reader did with a rules document,
// watched as it read (json_config::JsonObserver), with what the reader throws
// away kept: where each key and value starts, which objects become rules, and
// constructs read differently from how they look (Findings). Every key, value,
// object and announcement is the reader's own; the scan adds only positions.
// One pass of the reader, O(text); the result owns copies of every string.
#ifndef TPA_TOOLS_DOC_SCAN_H_
#define TPA_TOOLS_DOC_SCAN_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tpa::tools {

// A key or a value as the reader cuts it out of the text.
struct ScannedString {
  std::string text;            // as stored: a raw "[]" is already the empty string
  std::size_t offset = 0;      // index of its first byte (after the quote or colon)
  bool quoted = false;         // cut between two quotes, else from ':' to ',' or '}'
  bool emptyBrackets = false;  // the raw text was exactly "[]"
};

// One key of an object with the values that followed it.
struct ScannedProperty {
  ScannedString key;
  std::vector<ScannedString> values;
};

// An object as the reader pushes it at a '}'.
struct ScannedObject {
  std::size_t open = 0;                     // index of the '{' that last cleared it
  std::vector<ScannedProperty> properties;  // one per key set, in reading order

  // The values under `key` in reading order, merged over repeated keys as the
  // reader's map merges them.
  [[nodiscard]] std::vector<const ScannedString*> valuesOf(std::string_view key) const;
};

// A construct worth a warning, at a byte offset of the text.
struct Finding {
  std::size_t offset = 0;
  std::string code;     // short stable name, e.g. "comma-in-value"
  std::string message;  // one line
};

// A value together with the key it was stored under.
struct KeyedValue {
  std::string key;
  ScannedString value;
};

struct DocumentScan {
  std::vector<ScannedObject> objects;  // every object pushed, in pushing order
  // The rules the parser builds, in its order: indices into `objects`. Each
  // announcement appends every object pushed so far, so a second top-level
  // array repeats the first one's objects.
  std::vector<std::size_t> rules;
  std::size_t arrays = 0;          // top-level arrays closed: announcements
  std::size_t secondArray = 0;     // where the second top-level array opens (0: none)
  std::vector<KeyedValue> values;  // every value stored, once, in reading order
  std::vector<Finding> findings;   // in text order per kind, unsorted overall
  bool balanced = true;            // braces and brackets both balance
};

[[nodiscard]] DocumentScan scanDocument(std::string_view text);

// The rule key nearest to `key` (edit distance, case-insensitive), or empty
// when none is close enough to be a likely typo.
[[nodiscard]] std::string nearestRuleKey(std::string_view key);

// A blank as the C library's isspace says, and
// `s` without blanks at either end.
[[nodiscard]] bool isBlank(char c);
[[nodiscard]] std::string_view trimmed(std::string_view s);

// `text` quoted and escaped as a JSON string, for one-line messages.
[[nodiscard]] std::string quoted(std::string_view text);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_DOC_SCAN_H_
