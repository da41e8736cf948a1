// `tpa import`: one rule made from the host lists people already keep
// (hosts files, plain domain lists, the domain-anchored rules of AdBlock-style
// lists), written so that the reader takes every value as written and every
// listed name gets the decision its list meant.
//
// The matching decides which names can stand together in one list. A
// wildcard "*.M" is found through the longest end of the queried key that
// occurs anywhere in its list, so any other entry of the same list that ends
// in ".M" keeps it from matching names that share that longer end. Names
// under a wildcard of their own list are therefore left out as covered (the
// wildcard decides them the same way), and a name under a wildcard of its own
// list with an entry of the other list in between cannot be written at all.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "api/analyzer.h"
#include "api/constants.h"
#include "tools/build_guard.h"
#include "tools/cli.h"
#include "tools/commands.h"
#include "tools/doc_scan.h"
#include "tools/json_escape.h"
#include "tools/line_io.h"
#include "tools/output_format.h"
#include "tools/lint.h"

namespace tpa::tools {
namespace {

enum class ListFormat { kHosts, kDomains, kAdblock };

// Names that hosts files map to local addresses; no filter means them.
constexpr std::string_view kLocalNames[] = {
    "localhost",     "localhost.localdomain", "local",        "broadcasthost",
    "ip6-localhost", "ip6-loopback",          "ip6-localnet", "ip6-mcastprefix",
    "ip6-allnodes",  "ip6-allrouters",        "ip6-allhosts", "0.0.0.0"};

// One name as a list gives it.
struct Listed {
  std::string name;    // lower case, without trailing dots
  bool other = false;  // goes to the other list (an @@ rule)
  bool under = false;  // the names under it too (an AdBlock || rule)
  std::string where;   // FILE:LINE
};

struct Tally {
  std::size_t unreadable = 0, shadowing = 0, conflicting = 0;  // reported
  std::size_t duplicates = 0, covered = 0, local = 0, skipped = 0;
};

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::vector<std::string> words(std::string_view line) {
  std::vector<std::string> out;
  std::size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && isBlank(line[i])) ++i;
    const std::size_t start = i;
    while (i < line.size() && !isBlank(line[i])) ++i;
    if (i > start) out.emplace_back(line.substr(start, i - start));
  }
  return out;
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

void report(const std::string& where, const std::string& name, const std::string& why) {
  std::fprintf(stderr, "tpa: import: %s: left out %s: %s\n", where.c_str(), quoted(name).c_str(),
               why.c_str());
}

// Why the reader would not take `name` as written, or empty.
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
  if (stored.threw || stored.stored != name)
    return "read as an address, stored as " + quoted(stored.stored);
  return "";
}

class Importer {
 public:
  Importer(ListFormat format, bool excludeNames) : format_(format), excludeNames_(excludeNames) {}

  void readList(const std::string& text, const std::string& file) {
    std::size_t start = 0, number = 0;
    while (start < text.size()) {
      std::size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      const std::string_view line(text.data() + start, end - start);
      start = end + 1;
      readLine(line, file + ":" + std::to_string(++number));
    }
  }

  // Drops duplicates, conflicts, covered and shadowing names; what remains
  // goes to the two lists.
  void settle() {
    resolveConflicts();
    std::vector<std::size_t> order(listed_.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    // Wider names first, so that every name meets the wildcards above it.
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      return depth(listed_[a].name) < depth(listed_[b].name);
    });
    for (std::size_t i : order) place(i);
    for (std::size_t i = 0; i < listed_.size(); ++i) {
      if (!kept_[i]) continue;
      const Listed& l = listed_[i];
      std::vector<std::string>& list = l.other != excludeNames_ ? exclude_ : include_;
      list.push_back(l.name);
      if (l.under) list.push_back("*." + l.name);
    }
  }

  // Appends `count` names under ".invalid", which no destination ever has,
  // to each list that holds names.
  void pad(std::size_t count) {
    for (std::vector<std::string>* list : {&include_, &exclude_}) {
      if (list->empty()) continue;
      for (std::size_t i = 0; i < count; ++i) {
        list->push_back("padding-" + std::to_string(padding_++) +
                        "-0123456789abcdefghijklmnopqrstuvwxyz.tpa-import.invalid");
      }
    }
  }

  [[nodiscard]] std::size_t padding() const { return padding_; }
  [[nodiscard]] const std::vector<std::string>& include() const { return include_; }
  [[nodiscard]] const std::vector<std::string>& exclude() const { return exclude_; }
  [[nodiscard]] const Tally& tally() const { return tally_; }

 private:
  static std::size_t depth(const std::string& name) {
    return static_cast<std::size_t>(std::count(name.begin(), name.end(), '.'));
  }

  void readLine(std::string_view line, const std::string& where) {
    if (format_ == ListFormat::kAdblock) return readAdblock(trimmed(line), where);
    line = line.substr(0, line.find('#'));
    if (format_ == ListFormat::kDomains && !trimmed(line).empty() && trimmed(line)[0] == '!')
      return;
    std::vector<std::string> names = words(line);
    if (format_ == ListFormat::kHosts && !names.empty()) {
      names.erase(names.begin());  // the address
    }
    for (std::string& name : names) add(std::move(name), false, false, where);
  }

  void readAdblock(std::string_view line, const std::string& where) {
    if (line.empty() || line[0] == '!' || line[0] == '[') return;
    const bool exception = line.rfind("@@", 0) == 0;
    std::string_view rule = exception ? line.substr(2) : line;
    const bool anchored = rule.size() > 3 && rule.rfind("||", 0) == 0 && rule.back() == '^';
    const std::string_view name = anchored ? rule.substr(2, rule.size() - 3) : rule;
    if (!anchored || name.find_first_of("/^*|$") != std::string_view::npos) {
      ++tally_.skipped;
      return;
    }
    add(std::string(name), exception, true, where);
  }

  void add(std::string name, bool other, bool under, const std::string& where) {
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    while (!name.empty() && name.back() == '.') name.pop_back();
    if (format_ == ListFormat::kHosts &&
        std::find(std::begin(kLocalNames), std::end(kLocalNames), name) != std::end(kLocalNames)) {
      ++tally_.local;
      return;
    }
    if (const std::string why = unreadable(name); !why.empty()) {
      ++tally_.unreadable;
      return report(where, name, why);
    }
    const auto [it, fresh] = index_.emplace(std::make_pair(name, other), listed_.size());
    if (!fresh) {
      ++tally_.duplicates;
      listed_[it->second].under = listed_[it->second].under || under;
      return;
    }
    listed_.push_back({std::move(name), other, under, where});
    kept_.push_back(true);
  }

  // A name listed for both lists keeps the @@ rule, which AdBlock lists
  // let win; include would win the tie in the analyzer.
  void resolveConflicts() {
    for (std::size_t i = 0; i < listed_.size(); ++i) {
      const Listed& l = listed_[i];
      if (l.other) continue;
      const auto it = index_.find(std::make_pair(l.name, true));
      if (it == index_.end()) continue;
      kept_[i] = false;
      ++tally_.conflicting;
      report(l.where, l.name,
             "also listed by the @@ rule at " + listed_[it->second].where + ", which wins");
    }
  }

  // Keeps or drops one name after every wider name has been placed.
  void place(std::size_t i) {
    if (!kept_[i]) return;
    const Listed& l = listed_[i];
    bool nearest = true;
    std::string between;
    for (std::size_t dot = l.name.find('.'); dot != std::string::npos;
         dot = l.name.find('.', dot + 1)) {
      const auto it = wildcards_.find(l.name.substr(dot + 1));
      if (it == wildcards_.end()) continue;
      if (it->second == l.other && nearest) {
        kept_[i] = false;
        ++tally_.covered;
        return;
      }
      if (it->second == l.other) {
        kept_[i] = false;
        ++tally_.shadowing;
        return report(l.where, l.name,
                      "it would keep \"*." + it->first +
                          "\" of the same list from matching other "
                          "names (" +
                          quoted(between) + " of the other list lies between)");
      }
      if (nearest) between = it->first;
      nearest = false;
    }
    if (l.under) wildcards_.emplace(l.name, l.other);
  }

  struct PairHash {
    std::size_t operator()(const std::pair<std::string, bool>& p) const {
      return std::hash<std::string>()(p.first) ^ static_cast<std::size_t>(p.second);
    }
  };

  ListFormat format_;
  bool excludeNames_;
  std::vector<Listed> listed_;  // every distinct (name, list), in reading order
  std::vector<bool> kept_;      // parallel to listed_
  std::unordered_map<std::pair<std::string, bool>, std::size_t, PairHash> index_;
  std::unordered_map<std::string, bool>
      wildcards_;  // kept names with their names under them -> other
  std::vector<std::string> include_, exclude_;
  std::size_t padding_ = 0;  // padding names added
  Tally tally_;
};

bool formatFromName(const std::string& name, ListFormat& format) {
  if (name == "hosts")
    format = ListFormat::kHosts;
  else if (name == "domains")
    format = ListFormat::kDomains;
  else if (name == "adblock")
    format = ListFormat::kAdblock;
  else
    return false;
  return true;
}

// The applications of --apps, or why they cannot be written as one.
bool splitApps(const std::string& text, std::vector<std::string>& apps, std::string& error) {
  std::size_t start = 0;
  while (!text.empty() && start <= text.size()) {
    std::size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    const std::string app = text.substr(start, comma - start);
    start = comma + 1;
    if (app.empty() || app.find_first_of("{}[]\":\\") != std::string::npos ||
        std::any_of(app.begin(), app.end(), isBlank) || app == sigma::sentinel::LAMBDA_STRING) {
      error = "import: application " + quoted(app) + " cannot be written as it is";
      return false;
    }
    if (std::find(apps.begin(), apps.end(), app) == apps.end()) apps.push_back(app);
  }
  return true;
}

bool validId(const std::string& id) {
  const std::size_t digits = id.size() - (!id.empty() && id[0] == '-' ? 1 : 0);
  if (digits == 0 || digits > 10 ||
      id.find_first_not_of("0123456789", id.size() - digits) != std::string::npos) {
    return false;
  }
  const long long value = std::atoll(id.c_str());
  return value >= INT_MIN && value <= INT_MAX;
}

void appendList(std::string& out, const char* key, const std::vector<std::string>& list) {
  out += ",\n  \"";
  out += key;
  out += "\": [";
  for (std::size_t i = 0; i < list.size(); ++i) {
    out += i == 0 ? "\n    " : ",\n    ";
    appendJsonString(out, list[i]);
  }
  out += "]";
}

std::string document(const std::vector<std::string>& apps, const std::string& id,
                     const Importer& importer) {
  std::string out = "[{\"id\": \"" + id + "\"";
  if (!apps.empty()) {
    out += ",\n  \"match_apps\": ";
    appendJsonStringArray(out, apps);
  }
  // Without an include entry the rule keeps the reader's default "*".
  if (!importer.include().empty()) appendList(out, "include", importer.include());
  if (!importer.exclude().empty()) appendList(out, "exclude", importer.exclude());
  return out + "}]";
}

// The analyzer sizes each automaton from the document's symbol counts, which
// leave out one character of every key; many short keys that share their
// ends can need more states than that. Names under ".invalid" add room
// without changing any decision. Returns false when no padding helps.
bool makeBuildable(const std::vector<std::string>& apps, const std::string& id, Importer& importer,
                   std::string& text) {
  for (std::size_t count = 1; count <= 4096; count *= 2) {
    text = document(apps, id, importer);
    api::TarnPatternAnalyzer analyzer;
    const BuildOutcome outcome = buildGuarded(analyzer, text);
    if (!outcome.threw && outcome.code == error::TPA_ERROR_NONE) return true;
    if (outcome.threw || outcome.code != error::TPA_ERROR_ARRAY_OUT_OF_INDEX) break;
    importer.pad(count);
  }
  return false;
}

void writeSummary(const Importer& importer) {
  const Tally& t = importer.tally();
  std::fprintf(stderr,
               "tpa: import: %zu include and %zu exclude entries; left out %zu unreadable, %zu "
               "shadowing, %zu in both lists; dropped %zu duplicates, %zu covered, %zu local "
               "names; skipped %zu other rules\n",
               importer.include().size(), importer.exclude().size(), t.unreadable, t.shadowing,
               t.conflicting, t.duplicates, t.covered, t.local, t.skipped);
  if (importer.padding() != 0) {
    std::fprintf(stderr,
                 "tpa: import: %zu padding names under .invalid added so that the document "
                 "builds\n",
                 importer.padding());
  }
}

}  // namespace

int runImport(const Invocation& invocation) {
  ListFormat format = ListFormat::kHosts;
  std::vector<std::string> apps;
  std::string error;
  if (!formatFromName(invocation.operands[0], format)) {
    error = "import: unknown FORMAT '" + invocation.operands[0] + "' (hosts, domains, adblock)";
  } else if (!validId(invocation.id)) {
    error = "import: --id takes a decimal integer";
  } else {
    (void)splitApps(invocation.apps, apps, error);
  }
  if (!error.empty()) {
    std::fprintf(stderr, "tpa: %s\nRun 'tpa import --help' for usage.\n", error.c_str());
    return kExitUsage;
  }
  Importer importer(format, invocation.excludeNames);
  for (std::size_t i = 1; i < invocation.operands.size(); ++i) {
    std::string text;
    if (!loadRules(invocation.operands[i], text)) return kExitNoInput;
    importer.readList(text, displayName(invocation.operands[i]));
  }
  importer.settle();
  if (importer.include().empty() && importer.exclude().empty()) {
    writeSummary(importer);
    std::fprintf(stderr, "tpa: import: the lists give no name to import\n");
    return kExitBadQuery;
  }
  std::string text;
  const bool buildable = makeBuildable(apps, invocation.id, importer, text);
  writeSummary(importer);
  if (!buildable) {
    std::fprintf(stderr, "tpa: import: the document made of these names does not build\n");
    return kExitBuildFailed;
  }
  OutputSink out(STDOUT_FILENO, false);
  out.line(text);
  return finishOutput(out, kExitOk);
}

}  // namespace tpa::tools
