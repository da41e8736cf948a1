// The three list formats `tpa import` reads (hosts files, plain domain lists,
// AdBlock-style lists), one line at a time: what each line lists, and a note
// for every part of a line that is not taken. Names come out as the document
// must hold them (lower case, ASCII through UTS-46, readable as written by
// the rules reader). Plain functions over values; any thread.
#ifndef TPA_TOOLS_LIST_FORMATS_H_
#define TPA_TOOLS_LIST_FORMATS_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tpa::tools {

enum class ListFormat { kHosts, kDomains, kAdblock };

[[nodiscard]] bool listFormatFromName(const std::string& name, ListFormat& format);

// What a rule of a list does to the names it covers. Bits, so that all the
// rules on one name fit in one mask.
enum RuleKind : std::uint8_t { kBlock = 1, kException = 2, kImportant = 4 };

// One rule of a list: `self` covers the name itself, `under` every name
// below it (a hosts line: self only; "*.x" in a domain list: under only;
// "||x^": both).
struct ListRule {
  std::string name;
  RuleKind kind = kBlock;
  bool self = true;
  bool under = false;
};

// Why a line, or a word of it, was not taken: a short code and a sentence.
struct LineNote {
  std::string code;
  std::string message;
};

// Reads one line (without its '\n'; a byte order mark already removed).
void readListLine(ListFormat format, std::string_view line, std::vector<ListRule>& rules,
                  std::vector<LineNote>& notes);

// Brings a written name to the form the document holds: lower case, no
// trailing dot, Unicode labels converted by UTS-46 (non-transitional, as
// IDNA2008 registries and current browsers resolve them). False, with the
// reason in `why`, for a name the rules reader would not take as written.
[[nodiscard]] bool normalizeName(std::string& name, LineNote& why);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_LIST_FORMATS_H_
