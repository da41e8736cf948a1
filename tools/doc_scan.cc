#include "tools/doc_scan.h"

#include <android/log.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>

#include "json/json.h"
#include "parser/rule.h"
#include "tools/json_escape.h"

namespace tpa::tools {
namespace {

constexpr std::array<std::string_view, 4> kRuleKeys = {parser::kAppsKey, parser::kIncludeKey,
                                                        parser::kExcludeKey, parser::kIdKey};
constexpr std::size_t kNoKey = static_cast<std::size_t>(-1);

// The keys a rule reads; any other key is ignored by it.
bool isRuleKey(std::string_view key) {
  return std::find(kRuleKeys.begin(), kRuleKeys.end(), key) != kRuleKeys.end();
}

// "[" blanks "]" written with at least one blank somewhere: meant as [].
bool looksLikeEmptyList(std::string_view raw) {
  std::string_view t = trimmed(raw);
  if (t.size() < 2 || t.front() != '[' || t.back() != ']') return false;
  return trimmed(t.substr(1, t.size() - 2)).empty() && raw != "[]";
}

// Levenshtein distance, case-insensitive, one row at a time.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
      const std::size_t next = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = row[j];
      row[j] = next;
    }
  }
  return row[b.size()];
}

// Watches the library's reader over one text and keeps what the reader
// throws away: where each key and value starts, the objects in pushing order,
// and constructs read differently from how they look. Every decision it
// reports is the reader's own state at the event; it tracks only positions.
class Scanner : public json_config::JsonObserver {
 public:
  using Reader = json_config::json;

  explicit Scanner(std::string_view text) : text_(text) {}

  DocumentScan run() {
    json_config::json reader;
    reader.observer = this;
    // The build has already said whether the document balances; reading it
    // again says nothing to the log.
    const int previous = __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    (void)reader.parse_json_str(std::string(text_), nullptr);
    __android_log_set_minimum_priority(previous);
    return std::move(out_);
  }

  void on_event(const Reader& r, std::int32_t index, char c) override {
    const auto i = static_cast<std::size_t>(index);
    noteStrayUpTo(r, i);
    if (r.quote_count == 1 && c != '"') noteInsideString(i, c);
    switch (c) {
      case '{':
        if (r.quote_count == 0) noteObjectPlace(r, i);
        openCurly_.push_back(i);
        current_ = ScannedObject();
        current_.open = i;
        keyed_ = kNoKey;
        break;
      case '}':
        closeOne(openCurly_, i, "'}' without a matching '{': the build fails (braces do not balance)");
        break;
      case '[':
        if (r.square_level == 0 && out_.arrays == 1 && out_.secondArray == 0) out_.secondArray = i;
        if (r.square_level == 0 && out_.arrays > 0 && r.quote_count == 0) {
          note(i, "second-array",
               "second top-level array: when it closes, every object read before is announced "
               "again, so the first array's rules are built twice");
        }
        openSquare_.push_back(i);
        break;
      case ']':
        closeOne(openSquare_, i,
                 "']' without a matching '[': the build fails (brackets do not balance)");
        break;
      case '"':
        if (i > 0 && text_[i - 1] == '\\') noteBackslash(i, r.quote_count == 1);
        if (r.quote_count == 1) noteClosedString(r);
        break;
      case ',':
        if (r.square_level == 1 && r.quote_count == 1 && hasKey(r)) noteCommaInValue(i, r);
        break;
      default:
        break;
    }
    scanned_ = i + 1;
  }

  void on_cut(const Reader& r, std::int64_t offset, const std::string& value, bool brackets,
              bool asKey) override {
    ScannedString s;
    s.offset = static_cast<std::size_t>(offset);
    s.quoted = s.offset > 0 && text_[s.offset - 1] == '"';
    s.text = value;
    s.emptyBrackets = brackets;
    if (!s.quoted) noteUnquoted(s);
    if (asKey) {
      noteKey(r, s);
      current_.properties.push_back({std::move(s), {}});
      // An empty key leaves the reader without a current key.
      keyed_ = hasKey(r) ? current_.properties.size() - 1 : kNoKey;
    } else if (keyed_ != kNoKey) {
      out_.values.push_back({current_.properties[keyed_].key.text, s});
      current_.properties[keyed_].values.push_back(std::move(s));
    }
  }

  void on_push(const Reader&) override { out_.objects.push_back(current_); }

  void on_announce(const Reader& r) override {
    ++out_.arrays;
    for (std::size_t k = 0; k < r.objects.objects.size(); ++k) out_.rules.push_back(k);
  }

  void on_end(const Reader& r) override {
    noteStrayUpTo(r, text_.size());
    if (r.quote_count == 1) {
      note(static_cast<std::size_t>(r.quote_pos), "unterminated-string",
           "string never closed: the rest of the document is read as its text");
    }
    for (std::size_t at : openCurly_) {
      note(at, "unbalanced", "'{' never closed: the build fails (braces do not balance)");
    }
    for (std::size_t at : openSquare_) {
      note(at, "unbalanced", "'[' never closed: the build fails (brackets do not balance)");
    }
    out_.balanced = r.braces_count == 0 && r.brackets_count == 0;
  }

 private:
  static bool hasKey(const Reader& r) { return !r.curr_object.get_curr_key().empty(); }

  void note(std::size_t offset, const char* code, std::string message) {
    out_.findings.push_back({offset, code, std::move(message)});
  }

  void closeOne(std::vector<std::size_t>& open, std::size_t i, const char* unmatched) {
    if (open.empty()) {
      note(i, "unbalanced", unmatched);
    } else {
      open.pop_back();
    }
  }

  void noteInsideString(std::size_t i, char c) {
    switch (c) {
      case '{':
        note(i, "structural-in-string",
             "'{' inside a string still opens an object: what was read of this object is dropped");
        break;
      case '}':
        note(i, "structural-in-string",
             "'}' inside a string still closes an object: a rule is added here");
        break;
      case '[':
      case ']':
        note(i, "structural-in-string",
             std::string("'") + c + "' inside a string still changes the array depth");
        break;
      default:
        break;
    }
  }

  void noteObjectPlace(const Reader& r, std::size_t i) {
    if (r.curly_level > 0) {
      note(
          i, "nested-object",
          "object inside an object: '{' drops the properties read so far and each '}' adds a rule");
    } else if (r.square_level == 0) {
      note(i, "top-level-object",
           "object outside any array: it becomes a rule only if an array closes after it, and its "
           "commas do not end a property");
    } else if (r.square_level >= 2) {
      note(i, "deep-object",
           "object inside a nested array: its commas do not end a property, so every later string "
           "becomes a value of its first key");
    }
  }

  void noteBackslash(std::size_t i, bool closes) {
    note(i - 1, "backslash-quote",
         closes ? "there are no escapes: \\\" ends the string here"
                : "there are no escapes: \\\" starts a string here");
  }

  void noteCommaInValue(std::size_t i, const Reader& r) {
    note(i, "comma-in-value",
         "comma inside a quoted value: the property ends here, and the whole string becomes a key "
         "instead of a value of " +
             quoted(r.curr_object.get_curr_key()));
  }

  void noteClosedString(const Reader& r) {
    const auto opened = static_cast<std::size_t>(r.quote_pos);
    if (r.curly_level <= 0) {
      note(opened, "string-outside-object", "string outside any object: it is not part of a rule");
      return;
    }
    if (r.square_level == 1 && hasKey(r) && r.colon_count == 0 && keyed_ != kNoKey &&
        !current_.properties[keyed_].values.empty()) {
      note(opened, "missing-comma",
           "no comma before this string: it becomes another value of " +
               quoted(r.curr_object.get_curr_key()));
    }
  }

  // Text the reader passes over between two events: outside quotes and not
  // after a ':', it is ignored.
  void noteStrayUpTo(const Reader& r, std::size_t end) {
    if (r.quote_count != 0 || r.colon_count != 0) return;
    for (std::size_t i = scanned_; i < end; ++i) {
      if (isBlank(text_[i])) continue;
      if (i == 0 || strayEnd_ != i) {
        note(i, "stray-text",
             "text outside quotes and not after a ':' is ignored by the reader (only strings and "
             "the raw text after a ':' are read)");
      }
      strayEnd_ = i + 1;
    }
  }

  void noteUnquoted(const ScannedString& s) {
    const std::string_view raw = s.text;
    if (looksLikeEmptyList(raw)) {
      note(s.offset, "empty-list-with-space",
           "read as the text " + quoted(raw) +
               ", not as an empty list: write [] with nothing inside");
    } else if (raw.find('[') != std::string_view::npos || raw.find(']') != std::string_view::npos) {
      note(s.offset, "unquoted-in-array",
           "unquoted item in a list: the reader stores " + quoted(raw) +
               " (from the ':' on) as one value");
    } else if (!raw.empty() && (isBlank(raw.front()) || isBlank(raw.back()))) {
      note(s.offset, "unquoted-value",
           "unquoted value is stored raw as " + quoted(raw) +
               ", blanks and line breaks included (only \"id\" skips leading blanks); quote it");
    }
  }

  void noteKey(const Reader& r, const ScannedString& key) {
    if (r.curly_level <= 0) return;  // outside objects: string-outside-object says it
    for (const ScannedProperty& p : current_.properties) {
      if (p.key.text == key.text && !key.text.empty()) {
        note(key.offset, "duplicate-key",
             "key " + quoted(key.text) +
                 " appears again in this object: the reader merges both "
                 "value lists" +
                 (key.text == parser::kIdKey ? " and the first value is the id" : ""));
        return;
      }
    }
    if (isRuleKey(key.text)) return;
    std::string message = "unknown key " + quoted(key.text) + " is ignored";
    const std::string nearest = nearestRuleKey(key.text);
    if (!nearest.empty()) message += "; did you mean " + quoted(nearest) + "?";
    note(key.offset, "unknown-key", std::move(message));
  }

  std::string_view text_;
  DocumentScan out_;
  ScannedObject current_;            // the reader's current object, with positions
  std::size_t keyed_ = kNoKey;       // index into current_.properties of the reader's key
  std::vector<std::size_t> openCurly_;   // offsets of '{' not yet closed
  std::vector<std::size_t> openSquare_;  // offsets of '[' not yet closed
  std::size_t scanned_ = 0;              // one past the last event
  std::size_t strayEnd_ = 0;             // one past the last stray byte
};

}  // namespace

std::vector<const ScannedString*> ScannedObject::valuesOf(std::string_view key) const {
  std::vector<const ScannedString*> values;
  for (const ScannedProperty& p : properties) {
    if (p.key.text != key) continue;
    for (const ScannedString& v : p.values) values.push_back(&v);
  }
  return values;
}

DocumentScan scanDocument(std::string_view text) { return Scanner(text).run(); }

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

std::string nearestRuleKey(std::string_view key) {
  std::string best;
  std::size_t bestDistance = static_cast<std::size_t>(-1);
  for (std::string_view candidate : kRuleKeys) {
    const std::size_t d = editDistance(trimmed(key), candidate);
    if (d < bestDistance) {
      bestDistance = d;
      best = std::string(candidate);
    }
  }
  // A typo changes a few letters; beyond that the key means something else.
  const std::size_t limit = std::max<std::size_t>(1, best.size() / 3);
  return bestDistance <= limit && bestDistance < key.size() ? best : std::string();
}

std::string quoted(std::string_view text) {
  std::string out;
  appendJsonString(out, text);
  return out;
}

}  // namespace tpa::tools
