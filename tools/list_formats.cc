#include "tools/list_formats.h"

#include <idn2.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "cidr/cidr.h"
#include "tools/doc_scan.h"
#include "tools/lint.h"

namespace tpa::tools {
namespace {

// Names that hosts files map to local addresses; no filter means them.
constexpr std::string_view kLocalNames[] = {
    "localhost",     "localhost.localdomain", "local",        "broadcasthost",
    "ip6-localhost", "ip6-loopback",          "ip6-localnet", "ip6-mcastprefix",
    "ip6-allnodes",  "ip6-allrouters",        "ip6-allhosts", "0.0.0.0"};

std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> out;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && isBlank(line[i])) ++i;
    const std::size_t start = i;
    while (i < line.size() && !isBlank(line[i])) ++i;
    if (i > start) out.push_back(line.substr(start, i - start));
  }
  return out;
}

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// Why the rules reader would not take `name` as written, or empty.
std::string unreadable(const std::string& name) {
  if (name.empty()) return "empty name";
  for (char c : name) {
    if (c == ',') return "a comma ends a value in the reader";
    if (c == '"') return "a quote ends a value in the reader";
    if (c == '\\') return "a backslash is no escape in the reader";
    const bool plain =
        (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
    if (!plain) return "not a host name (letters, digits, '-', '_' and '.' only)";
  }
  if (name.front() == '.' || name.find("..") != std::string::npos) return "empty label";
  const StoredDestination stored = storeDestination(name);
  if (stored.threw) return "an address form that makes the build throw (" + stored.what + ")";
  if (stored.stored != name) {
    return "an address, which the document stores as " + quoted(stored.stored);
  }
  return "";
}

bool toAscii(std::string& name, LineNote& why) {
  if (std::all_of(name.begin(), name.end(), [](char c) { return (c & 0x80) == 0; })) return true;
  // The conversion reads a C string: a NUL would end the name early.
  if (name.find('\0') != std::string::npos) {
    why = {"unreadable", quoted(name) + ": not a host name (a NUL byte)"};
    return false;
  }
  char* ascii = nullptr;
  const int rc = idn2_to_ascii_8z(name.c_str(), &ascii, IDN2_NONTRANSITIONAL | IDN2_NFC_INPUT);
  if (rc != IDN2_OK) {
    why = {"idna", quoted(name) + " has no ASCII form under UTS-46: " + idn2_strerror(rc)};
    return false;
  }
  name = ascii;
  idn2_free(ascii);
  return true;
}

// Adds `written` as a rule, or a note saying why not.
void take(std::string_view written, ListRule rule, std::vector<ListRule>& rules,
          std::vector<LineNote>& notes) {
  rule.name = std::string(written);
  LineNote why;
  if (!normalizeName(rule.name, why)) return notes.push_back(why);
  rules.push_back(std::move(rule));
}

void readHosts(std::string_view line, std::vector<ListRule>& rules, std::vector<LineNote>& notes) {
  const std::vector<std::string_view> all = words(line.substr(0, line.find('#')));
  if (all.empty()) return;
  if (!cidr::isIPAddress(std::string(all[0]))) {
    notes.push_back({"hosts-no-address", "the line does not start with an address, so " +
                                             quoted(all[0]) + " is no name of it"});
    return;
  }
  if (all.size() == 1) notes.push_back({"hosts-no-name", "an address without a name"});
  for (std::size_t i = 1; i < all.size(); ++i) {
    const std::string_view word = all[i];
    if (std::find(std::begin(kLocalNames), std::end(kLocalNames), word) != std::end(kLocalNames))
      continue;
    if (word.find('*') != std::string_view::npos) {
      notes.push_back({"wildcard-in-hosts", quoted(word) + ": a hosts file has no wildcards"});
      continue;
    }
    take(word, ListRule{}, rules, notes);
  }
}

void readDomains(std::string_view line, std::vector<ListRule>& rules,
                 std::vector<LineNote>& notes) {
  line = line.substr(0, line.find('#'));
  if (startsWith(trimmed(line), "!")) return;
  for (std::string_view word : words(line)) {
    ListRule rule;
    if (startsWith(word, "*.")) {
      word.remove_prefix(2);
      rule.self = false;
      rule.under = true;
    }
    if (word.find('*') != std::string_view::npos) {
      notes.push_back({"wildcard-misplaced",
                       quoted(word) + ": only a leading \"*.\" (every name under) is taken"});
      continue;
    }
    take(word, rule, rules, notes);
  }
}

LineNote onlyNameRules() {
  return {"adblock-not-domain", "only ||NAME^ rules (a name and every name under it) are taken"};
}

// Why an AdBlock rule without "||NAME^" is left out.
LineNote unanchored(std::string_view rule) {
  const std::vector<std::string_view> all = words(rule);
  if (all.size() > 1 && cidr::isIPAddress(std::string(all[0])))
    return {"adblock-hosts-line", "a hosts line in an AdBlock list is not a rule of it"};
  if (rule.size() > 1 && rule.front() == '/' && rule.back() == '/')
    return {"adblock-regex", "a regular expression is not a list of names"};
  if (rule.find_first_of("/:|^*?=&") == std::string_view::npos)
    return {"adblock-bare-name",
            "a bare name in an AdBlock list matches every address that contains it; "
            "write ||NAME^ for the name and the names under it"};
  return onlyNameRules();
}

// Takes the options after '$' into `rule`; false, with a note, for one that
// no list of names can say.
bool takeOptions(std::string_view options, ListRule& rule, std::vector<LineNote>& notes) {
  for (std::size_t start = 0; start < options.size();) {
    std::size_t comma = options.find(',', start);
    if (comma == std::string_view::npos) comma = options.size();
    const std::string_view option = options.substr(start, comma - start);
    start = comma + 1;
    if (option == "important" && rule.kind == kBlock) {
      rule.kind = kImportant;
      continue;
    }
    notes.push_back({"adblock-option", "option $" + std::string(option) +
                                           " is not representable: a document lists names for "
                                           "every request"});
    return false;
  }
  return true;
}

void readAdblock(std::string_view line, std::vector<ListRule>& rules,
                 std::vector<LineNote>& notes) {
  line = trimmed(line);
  if (line.empty() || line[0] == '!' || line[0] == '[') return;
  for (std::string_view mark : {"##", "#@#", "#?#", "#$#", "#%#"}) {
    if (line.find(mark) != std::string_view::npos)
      return notes.push_back({"adblock-cosmetic", "element hiding is not about names"});
  }
  ListRule rule;
  rule.under = true;
  if (startsWith(line, "@@")) {
    rule.kind = kException;
    line.remove_prefix(2);
  }
  const std::size_t dollar = line.rfind('$');
  if (dollar != std::string_view::npos && !takeOptions(line.substr(dollar + 1), rule, notes)) {
    return;
  }
  const std::string_view pattern = line.substr(0, dollar);
  if (!startsWith(pattern, "||")) return notes.push_back(unanchored(pattern));
  if (pattern.size() < 4 || pattern.back() != '^') return notes.push_back(onlyNameRules());
  const std::string_view name = pattern.substr(2, pattern.size() - 3);
  if (name.find('*') != std::string_view::npos)
    return notes.push_back({"adblock-wildcard", "a '*' inside the name is not representable"});
  if (name.find_first_of("/^|:?=&") != std::string_view::npos)
    return notes.push_back(onlyNameRules());
  take(name, rule, rules, notes);
}

using ReadLine = void (*)(std::string_view, std::vector<ListRule>&, std::vector<LineNote>&);

// Every format by its name, in the order of ListFormat.
constexpr std::pair<std::string_view, ReadLine> kFormats[] = {
    {"hosts", readHosts}, {"domains", readDomains}, {"adblock", readAdblock}};
static_assert(std::size(kFormats) == static_cast<std::size_t>(ListFormat::kAdblock) + 1);

}  // namespace

bool listFormatFromName(const std::string& name, ListFormat& format) {
  for (std::size_t i = 0; i < std::size(kFormats); ++i) {
    if (name != kFormats[i].first) continue;
    format = static_cast<ListFormat>(i);
    return true;
  }
  return false;
}

void readListLine(ListFormat format, std::string_view line, std::vector<ListRule>& rules,
                  std::vector<LineNote>& notes) {
  kFormats[static_cast<std::size_t>(format)].second(line, rules, notes);
}

bool normalizeName(std::string& name, LineNote& why) {
  // After the conversion: UTS-46 maps the ideographic full stop to '.'.
  if (!toAscii(name, why)) return false;
  while (!name.empty() && name.back() == '.') name.pop_back();
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (const std::string reason = unreadable(name); !reason.empty()) {
    why = {"unreadable", quoted(name) + ": " + reason};
    return false;
  }
  return true;
}

}  // namespace tpa::tools
