#include "tools/lint.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <set>
#include <tuple>

#include "api/diagnostics.h"
#include "cidr/address_bits.h"
#include "cidr/cidr.h"
#include "cidr/decimal.h"
#include "mapper/map.h"
#include "mapper/trace_text.h"
#include "mapper/transform.h"
#include "parser/rule.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

constexpr std::size_t kMaxCheckedRules = std::size_t{1} << 20;

bool hasBlank(std::string_view s) { return std::any_of(s.begin(), s.end(), isBlank); }

bool hasUpper(std::string_view s) {
  return std::any_of(s.begin(), s.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// The prefix length written after the first '/', as atoi reads it.
int writtenPrefix(const std::string& written) {
  const std::size_t slash = written.find('/');
  return slash == std::string::npos ? -1 : cidr::decimalAtoi(written.c_str() + slash + 1);
}

// A destination as written, with what the map makes of it.
struct Entry {
  const ScannedString* written;  // null for a default entry
  StoredDestination stored;
};

// One rule as the builder numbers it.
struct RuleView {
  std::size_t object = 0;
  std::size_t position = 0;  // 1-based
  bool repeat = false;       // a copy of an earlier rule (a later top-level array's)
  int number = 0;
  std::vector<const ScannedString*> apps;  // as written; empty means every app
  const ScannedString* id = nullptr;       // first "id" value, if any
  std::vector<Entry> include;              // defaults included
  std::vector<Entry> exclude;
};

class Linter {
 public:
  Linter(const std::string& text, const mapper::Map* built)
      : text_(text), built_(built), scan_(scanDocument(text)) {}

  std::vector<Finding> run() {
    findings_ = scan_.findings;
    checkDocument();
    checkArrays();
    for (const KeyedValue& kv : scan_.values) checkValue(kv);
    // Rules that further top-level arrays repeat are copies of rules of the
    // first announcements; past this many, checking each copy only costs.
    if (scan_.rules.size() <= std::max(kMaxCheckedRules, scan_.objects.size())) {
      collectRules();
      checkRules();
    }
    // Sorted in full so that an object pushed twice (nested braces), which
    // would say the same thing twice, says it once.
    const auto fields = [](const Finding& f) { return std::tie(f.offset, f.code, f.message); };
    std::sort(findings_.begin(), findings_.end(),
              [&](const Finding& a, const Finding& b) { return fields(a) < fields(b); });
    findings_.erase(
        std::unique(findings_.begin(), findings_.end(),
                    [&](const Finding& a, const Finding& b) { return fields(a) == fields(b); }),
        findings_.end());
    return std::move(findings_);
  }

 private:
  void note(std::size_t offset, const char* code, std::string message) {
    findings_.push_back({offset, code, std::move(message)});
  }

  void checkDocument() {
    if (text_.empty()) {
      note(0, "empty-document",
           "empty document: no rules, so every query is excluded with value -1");
    } else if (text_ == "[]") {
      note(0, "empty-array-document",
           "the document \"[]\" is read as [{}]: one rule for every application that includes "
           "every destination");
    }
  }

  // Each top-level array, when it closes, announces every object read so far
  // (brackets and braces count wherever they stand, as the reader counts
  // them), and every announced object becomes a rule again.
  void checkArrays() {
    if (scan_.arrays < 2) return;
    note(scan_.secondArray, "repeated-arrays",
         std::to_string(scan_.arrays) +
             " top-level arrays: each announces every object read before "
             "it again, so the " +
             std::to_string(scan_.objects.size()) + " objects make " +
             std::to_string(scan_.rules.size()) + " rules");
  }

  // --- single values -------------------------------------------------------

  void checkValue(const KeyedValue& kv) {
    if (kv.key == parser::kAppsKey) checkApp(kv.value);
    if (kv.key == parser::kIncludeKey || kv.key == parser::kExcludeKey) {
      checkDestination(kv.key, kv.value);
    }
  }

  void checkApp(const ScannedString& v) {
    if (v.emptyBrackets) {
      note(v.offset, "empty-apps-list",
           "\"match_apps\":[] gives [\"\"]: the rule applies only to an application with an empty "
           "name, not to every application; leave \"match_apps\" out for that");
    } else if (v.text.empty()) {
      note(v.offset, "empty-entry", "empty application name: only an empty application matches it");
    } else if (v.quoted && hasBlank(v.text)) {
      note(v.offset, "blank-in-entry",
           "blank inside " + quoted(v.text) +
               ": only an application written with the same blank matches");
    }
  }

  void checkDestination(const std::string& key, const ScannedString& v) {
    const StoredDestination d = storeDestination(v.text);
    if (d.threw) {
      note(
          v.offset, "build-throws",
          "storing " + quoted(v.text) + " throws (" + d.what + "): the build ends in an exception");
    } else if (v.emptyBrackets || v.text.empty()) {
      if (key == parser::kIncludeKey) checkEmptyInclude(v);
    } else if (d.network != 0) {
      checkNetwork(v, d);
    } else if (cidr::isIPAddress(v.text)) {
      checkAddress(v, d);
    } else if (d.stored.find('/') != std::string::npos || v.text.find(':') != std::string::npos) {
      note(v.offset, "not-a-destination",
           quoted(v.text) +
               " is no host name, address or network (a URL, path or port?): it is "
               "compared as plain text and never matches a destination");
    } else {
      checkName(v);
    }
  }

  void checkEmptyInclude(const ScannedString& v) {
    if (v.emptyBrackets) {
      note(v.offset, "empty-include-list",
           "\"include\":[] gives [\"\"], which matches nothing; leave \"include\" out to include "
           "every destination (\"*\")");
    } else {
      note(v.offset, "empty-entry", "empty destination: it matches only an empty destination");
    }
  }

  void checkNetwork(const ScannedString& v, const StoredDestination& d) {
    if (cidr::isBitString(d.stored)) {
      if (d.stored.size() == 1) {
        note(v.offset, "network-never-matches",
             "a network of one bit never matches: a prefix match needs at least 2 bits");
      }
      if (d.network == 6 && cidr::isIPv4MappedBits(d.stored)) noteMapped(v);
      return;
    }
    const int prefix = writtenPrefix(v.text);
    if (prefix == 0) {
      note(v.offset, "network-zero-prefix",
           "a /0 network is stored as its address: it matches that one address only, not every "
           "address");
    } else if (d.network == 4 && prefix > cidr::kIPv4Bits) {
      note(v.offset, "network-prefix-clamped",
           "an IPv4 prefix above 32 is cut to 32: only the address itself matches");
    }
  }

  void checkAddress(const ScannedString& v, const StoredDestination& d) {
    if (cidr::isIPv6Address(v.text) && cidr::isIPv4MappedText(d.stored)) noteMapped(v);
  }

  void noteMapped(const ScannedString& v) {
    note(v.offset, "ipv4-mapped",
         "IPv4-mapped IPv6 entry: it matches only destinations written as IPv6 (::ffff:a.b.c.d), "
         "never the IPv4 address a.b.c.d; list the IPv4 form too");
  }

  void checkName(const ScannedString& v) {
    const std::string& t = v.text;
    if (t.find('*') != std::string::npos) checkWildcard(v);
    if (hasUpper(t)) {
      note(v.offset, "upper-case",
           "upper-case letters: destinations are compared byte for byte, and queries arrive in "
           "lower case");
    }
    if (t.back() == '.') {
      note(v.offset, "trailing-dot",
           "trailing dot: " + quoted(t) + " does not match " + quoted(t.substr(0, t.size() - 1)));
    }
    if (t.front() == '.') {
      note(v.offset, "leading-dot",
           "a leading '.' is no wildcard: only the exact text " + quoted(t) + " matches; write " +
               quoted("*" + t) + " for its subdomains");
    }
    if (v.quoted && hasBlank(t)) {
      note(
          v.offset, "blank-in-entry",
          "blank inside " + quoted(t) + ": only a destination written with the same blank matches");
    }
  }

  void checkWildcard(const ScannedString& v) {
    const std::string& t = v.text;
    const std::size_t first = t.find('*');
    const std::size_t last = t.rfind('*');
    if (t == parser::kAnyDestination) return;
    const std::string rest = t.substr(last + 1);
    if (first != 0 || first != last) {
      note(v.offset, "wildcard-misplaced",
           "'*' not only at the start: the text before the last '*' is ignored, so " + quoted(t) +
               (rest.empty() ? " matches every destination of this rule"
                             : " matches every name that ends in " + quoted(rest)));
    } else if (t.size() > 1 && t[1] != '.') {
      note(v.offset, "wildcard-no-dot",
           quoted(t) + " matches every name that ends in " + quoted(rest) + ", " +
               quoted("bad" + rest) + " too; write " + quoted("*." + rest) + " for its subdomains");
    }
  }

  // --- rules -----------------------------------------------------------------

  void collectRules() {
    std::set<std::size_t> seen;
    for (std::size_t k = 0; k < scan_.rules.size(); ++k) {
      views_.push_back(makeView(scan_.objects[scan_.rules[k]], scan_.rules[k], k + 1));
      views_.back().repeat = !seen.insert(scan_.rules[k]).second;
    }
  }

  RuleView makeView(const ScannedObject& object, std::size_t index, std::size_t position) {
    RuleView view;
    view.object = index;
    view.position = position;
    view.apps = object.valuesOf(parser::kAppsKey);
    const auto ids = object.valuesOf(parser::kIdKey);
    if (!ids.empty()) view.id = ids.front();
    std::vector<std::string> apps;
    for (const ScannedString* app : view.apps) apps.push_back(app->text);
    view.number = parser::ruleNumber(apps, static_cast<int>(position));
    view.include = entries(object.valuesOf(parser::kIncludeKey), parser::kAnyDestination);
    view.exclude = entries(object.valuesOf(parser::kExcludeKey), parser::kNoDestination);
    return view;
  }

  std::vector<Entry> entries(const std::vector<const ScannedString*>& written,
                             const std::string& fallback) {
    std::vector<Entry> list;
    for (const ScannedString* w : written) list.push_back({w, storeDestination(w->text)});
    if (list.empty()) list.push_back({nullptr, storeDestination(fallback)});
    for (const Entry& e : list) anyThrew_ = anyThrew_ || e.stored.threw;
    return list;
  }

  void checkRules() {
    for (const RuleView& view : views_) {
      if (view.repeat) continue;
      checkId(view);
      checkApps(view);
      checkBothLists(view);
    }
    if (!anyThrew_) checkMachineWalks();
  }

  void checkId(const RuleView& view) {
    if (view.id == nullptr) {
      note(scan_.objects[view.object].open, "missing-id",
           "rule without \"id\": the decisions it makes report " + std::to_string(parser::kDefaultId));
      return;
    }
    const int id = readId(*view.id);
    const auto [it, fresh] = positionOfId_.emplace(id, view.position);
    if (!fresh) {
      note(view.id->offset, "duplicate-id",
           "id " + std::to_string(id) + " is also the id of the rule at position " +
               std::to_string(it->second) + ": a decision's value cannot tell them apart");
    }
  }

  // atoi's reading of an id, with a warning when it is not what was written.
  int readId(const ScannedString& v) {
    const char* start = v.text.c_str();
    const cidr::DecimalReading reading = cidr::readDecimal(start);
    const int id = reading.value;
    std::string problem;
    if (reading.end == start) {
      problem = " is no number";
    } else if (!trimmed(reading.end).empty()) {
      problem = " has text after its digits";
    } else if (!reading.fitsInt) {
      problem = " is outside the int range";
    }
    if (!problem.empty()) {
      note(v.offset, "id-atoi",
           "id " + quoted(v.text) + problem + ": atoi reads it as " + std::to_string(id));
    }
    return id;
  }

  void checkApps(const RuleView& view) {
    for (const ScannedString* app : view.apps) {
      if (app->text == sigma::sentinel::LAMBDA_STRING) {
        if (view.apps.size() > 1) {
          note(app->offset, "lambda-mixed",
               "\"#LAMBDA-APP\" among other applications does not make the rule apply to every "
               "application: it keeps its own rule number");
        }
        continue;
      }
      const auto [it, fresh] = positionOfApp_.emplace(app->text, view.position);
      if (!fresh && it->second != view.position) {
        note(app->offset, "app-in-several-rules",
             "application " + quoted(app->text) + " is also listed by the rule at position " +
                 std::to_string(it->second) +
                 ": an application has one rule number, and it keeps the earlier rule's");
      }
    }
  }

  void checkBothLists(const RuleView& view) {
    std::set<std::string> included;
    for (const Entry& e : view.include) {
      if (!e.stored.threw) included.insert(e.stored.stored);
    }
    for (const Entry& e : view.exclude) {
      if (e.written == nullptr || e.stored.threw || e.written->text.empty()) continue;
      if (included.count(e.stored.stored) != 0) {
        note(e.written->offset, "include-and-exclude",
             quoted(e.written->text) +
                 " is also in this rule's include list: equal matches go to "
                 "include, so this exclude entry never decides");
      }
    }
  }

  // --- searches that run into other entries ---------------------------------

  // The searches run on the built machines; when the build failed, on those
  // of the rules read before it failed.
  void checkMachineWalks() {
    const std::unique_ptr<mapper::Map> read =
        built_ != nullptr ? nullptr : api::Inspect::mapOfRulesRead(text_);
    const mapper::Map* map = built_ != nullptr ? built_ : read.get();
    if (map == nullptr || map->includeMachine() == nullptr) return;
    for (const RuleView& view : views_) {
      if (view.repeat) continue;
      for (const std::uint8_t list : {mapper::TPA_DECISION_INCLUDE, mapper::TPA_DECISION_EXCLUDE}) {
        const bool include = list == mapper::TPA_DECISION_INCLUDE;
        const machine::Machine& machine = include ? *map->includeMachine() : *map->excludeMachine();
        for (const Entry& e : include ? view.include : view.exclude) {
          checkNetworkWalk(e, machine, mapper::decisionName(list));
          checkWildcardWalk(e, view, list, machine);
        }
      }
    }
  }

  // The wildcard search takes the longest end of the queried key found
  // anywhere in the machine and then reads it behind a '*'. When another key
  // holds the wildcard's tail with one more character before it, names with
  // that character there take the longer tail, and the '*' walk fails.
  void checkWildcardWalk(const Entry& e, const RuleView& view, std::uint8_t flag,
                         const machine::Machine& machine) {
    const std::string& name = e.stored.stored;
    if (name.empty() || name[0] != '*' || name.find('*', 1) != std::string::npos) return;
    const std::string tail = mapper::transformDomain(name.substr(1), view.number, flag).substr(1);
    char before = 0;
    for (int c = 1; c < 256 && before == 0; ++c) {
      const char ch = static_cast<char>(c);
      if (ch == '*' || ch == sigma::sentinel::PRECEDING_SYMBOL) continue;
      if (machine.occurs(ch + tail)) before = ch;
    }
    if (before == 0) return;
    const std::string longer = before + name.substr(1);
    const bool written = e.written != nullptr;
    note(written ? e.written->offset : scan_.objects[view.object].open, "wildcard-shadowed",
         (written ? quoted(e.written->text)
                  : "the default include " + quoted(parser::kAnyDestination)) +
             " does not match names that end in " + quoted(longer) + " (such as " +
             quoted("x" + longer) +
             ") unless they are stored whole: the wildcard search "
             "follows the longer tail " +
             quoted(longer) + " of another entry in this list");
  }

  // The prefix search reads the address bits as far as the machine's text
  // allows and tries only that longest run; a network whose bits continue
  // anywhere in the text loses the addresses that continue the same way.
  void checkNetworkWalk(const Entry& e, const machine::Machine& machine, const char* list) {
    const std::string& bits = e.stored.stored;
    const int width = e.stored.network == 4 ? cidr::kIPv4Bits : cidr::kIPv6Bits;
    if (e.written == nullptr || e.stored.network == 0 || !cidr::isBitString(bits) ||
        bits.size() < 2) {
      return;
    }
    for (const char next : {'0', '1'}) {
      if (!machine.occurs(bits + next)) continue;
      std::string example = bits + next;
      extendWalk(example, machine, width);
      note(e.written->offset, "network-shadowed",
           "addresses of this network whose next bit is " + std::string(1, next) + " (such as " +
               cidr::bitsToAddress(example, width) +
               ") are not matched by it: the prefix search in the " + list +
               " list follows a longer run of stored bits and tries only that run");
      return;
    }
  }

  // Extends `bits` to where the search stops, choosing a bit the text lacks.
  static void extendWalk(std::string& bits, const machine::Machine& machine, int width) {
    while (static_cast<int>(bits.size()) < width) {
      const bool zero = machine.occurs(bits + '0');
      const bool one = machine.occurs(bits + '1');
      if (!zero || !one) {
        bits.push_back(zero ? '1' : '0');
        return;
      }
      bits.push_back('0');
    }
  }

  const std::string& text_;
  const mapper::Map* built_;  // the document's built map, null when the build failed
  DocumentScan scan_;
  std::vector<Finding> findings_;
  std::vector<RuleView> views_;  // one per rule the parser builds, in its order
  bool anyThrew_ = false;        // some destination cannot be stored
  std::map<int, std::size_t> positionOfId_;
  std::map<std::string, std::size_t> positionOfApp_;
};

}  // namespace

std::vector<Finding> lintDocument(const std::string& text, const mapper::Map* built) {
  return Linter(text, built).run();
}

namespace {

// The network kind of a destination that the rule's sanitising already
// turned into bits (an IPv6 network), or 0. Only asks for the kind when
// sanitising asked the same question, so it cannot throw where it did not.
int sanitizedNetworkKind(const std::string& written) {
  std::string unspecified;
  if (cidr::isIPv4Address(written) || cidr::isIPv6Address(written) ||
      cidr::isUnspecifiedIPAddress(written, unspecified)) {
    return 0;
  }
  return cidr::isCidrIpAddress(written);
}

}  // namespace

StoredDestination storeDestination(const std::string& written) {
  StoredDestination d;
  try {
    std::vector<std::string> one{written};
    parser::sanitize(one);
    mapper::storedDestination(one[0], d.stored);
    d.network = cidr::isCidrIpAddress(one[0]);
    if (d.network == 0) d.network = sanitizedNetworkKind(written);
  } catch (const std::exception& e) {
    d.threw = true;
    d.what = e.what();
  }
  return d;
}

bool findThrowingValue(const std::string& text, KeyedValue& value, std::string& what) {
  const DocumentScan scan = scanDocument(text);
  for (const KeyedValue& kv : scan.values) {
    if (kv.key != parser::kIncludeKey && kv.key != parser::kExcludeKey) continue;
    const StoredDestination d = storeDestination(kv.value.text);
    if (d.threw) {
      value = kv;
      what = d.what;
      return true;
    }
  }
  return false;
}

LineIndex::LineIndex(std::string_view text) {
  lineStarts_.push_back(0);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n') lineStarts_.push_back(i + 1);
  }
}

std::pair<std::size_t, std::size_t> LineIndex::at(std::size_t offset) const {
  const auto it = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
  const std::size_t line = static_cast<std::size_t>(it - lineStarts_.begin());
  return {line, offset - lineStarts_[line - 1] + 1};
}

}  // namespace tpa::tools
