#include "tools/doc_scan.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "tools/json_escape.h"

namespace tpa::tools {
namespace {

constexpr std::array<std::string_view, 4> kRuleKeys = {"match_apps", "include", "exclude", "id"};
constexpr std::size_t kNoKey = static_cast<std::size_t>(-1);

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

bool isStructural(char c) {
  return c == '{' || c == '}' || c == '[' || c == ']' || c == '"' || c == ':' || c == ',';
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
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

// Replays the reader's events over one text. The member names follow the
// reader's counters so that the two can be compared line by line.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  DocumentScan run() {
    for (std::size_t i = 0; i < text_.size(); ++i) step(i);
    finish();
    return std::move(out_);
  }

 private:
  void step(std::size_t i) {
    const char c = text_[i];
    if (quoteCount_ == 1 && c != '"') noteInsideString(i, c);
    switch (c) {
      case '{':
        onOpenCurly(i);
        break;
      case '}':
        onCloseCurly(i);
        break;
      case '[':
        onOpenSquare(i);
        break;
      case ']':
        onCloseSquare(i);
        break;
      case '"':
        onQuote(i);
        break;
      case ':':
        ++colonCount_;
        colonPos_ = i;
        break;
      case ',':
        onComma(i);
        break;
      default:
        noteStray(i, c);
        break;
    }
  }

  void onOpenCurly(std::size_t i) {
    if (quoteCount_ == 0) noteObjectPlace(i);
    ++curly_;
    openCurly_.push_back(i);
    current_ = ScannedObject();
    current_.open = i;
    currentKey_ = kNoKey;
  }

  void onCloseCurly(std::size_t i) {
    if (quoteCount_ == 0 && colonCount_ != 0) {
      extract(i, colonPos_, false);
      colonCount_ = 0;
    }
    --curly_;
    if (openCurly_.empty()) {
      note(i, "unbalanced", "'}' without a matching '{': the build fails (braces do not balance)");
    } else {
      openCurly_.pop_back();
    }
    out_.objects.push_back(current_);
  }

  void onOpenSquare(std::size_t i) {
    if (square_ == 0 && announcements_ > 0 && quoteCount_ == 0) {
      note(i, "second-array",
           "second top-level array: when it closes, every object read before is announced "
           "again, so the first array's rules are built twice");
    }
    ++square_;
    openSquare_.push_back(i);
  }

  void onCloseSquare(std::size_t i) {
    const int before = square_--;
    if (openSquare_.empty()) {
      note(i, "unbalanced",
           "']' without a matching '[': the build fails (brackets do not balance)");
    } else {
      openSquare_.pop_back();
    }
    if (before == 1) announce();
  }

  void onQuote(std::size_t i) {
    ++quoteCount_;
    if (i > 0 && text_[i - 1] == '\\') noteBackslash(i);
    if (quoteCount_ == 2) {
      noteClosedString();
      extract(i, quotePos_, true);
      quoteCount_ = 0;
      colonCount_ = 0;
    }
    quotePos_ = i;
  }

  void onComma(std::size_t i) {
    if (quoteCount_ == 0 && colonCount_ != 0) {
      extract(i, colonPos_, false);
      colonCount_ = 0;
    }
    if (square_ == 1) {
      if (quoteCount_ == 1 && currentKey_ != kNoKey) noteCommaInValue(i);
      currentKey_ = kNoKey;
    }
  }

  void announce() {
    ++announcements_;
    for (std::size_t k = 0; k < out_.objects.size(); ++k) out_.rules.push_back(k);
  }

  // The reader's extract_value: the text strictly between two delimiters
  // becomes the current key when there is none, else a value of it.
  void extract(std::size_t end, std::size_t start, bool isQuoted) {
    ScannedString s;
    s.offset = start + 1;
    s.quoted = isQuoted;
    s.text = std::string(text_.substr(start + 1, end > start ? end - start - 1 : 0));
    if (s.text == "[]") {
      s.text.clear();
      s.emptyBrackets = true;
    }
    if (!isQuoted) noteUnquoted(s);
    if (currentKey_ == kNoKey) {
      setKey(std::move(s));
    } else {
      out_.values.push_back({current_.properties[currentKey_].key.text, s});
      current_.properties[currentKey_].values.push_back(std::move(s));
    }
  }

  void setKey(ScannedString key) {
    noteKey(key);
    current_.properties.push_back({std::move(key), {}});
    // An empty key leaves the reader without a current key.
    if (!current_.properties.back().key.text.empty()) currentKey_ = current_.properties.size() - 1;
  }

  void finish() {
    if (quoteCount_ == 1) {
      note(quotePos_, "unterminated-string",
           "string never closed: the rest of the document is read as its text");
    }
    for (std::size_t at : openCurly_) {
      note(at, "unbalanced", "'{' never closed: the build fails (braces do not balance)");
    }
    for (std::size_t at : openSquare_) {
      note(at, "unbalanced", "'[' never closed: the build fails (brackets do not balance)");
    }
    out_.balanced = curly_ == 0 && square_ == 0;
  }

  // --- findings ----------------------------------------------------------

  void note(std::size_t offset, const char* code, std::string message) {
    out_.findings.push_back({offset, code, std::move(message)});
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

  void noteObjectPlace(std::size_t i) {
    if (curly_ > 0) {
      note(
          i, "nested-object",
          "object inside an object: '{' drops the properties read so far and each '}' adds a rule");
    } else if (square_ == 0) {
      note(i, "top-level-object",
           "object outside any array: it becomes a rule only if an array closes after it, and its "
           "commas do not end a property");
    } else if (square_ >= 2) {
      note(i, "deep-object",
           "object inside a nested array: its commas do not end a property, so every later string "
           "becomes a value of its first key");
    }
  }

  void noteBackslash(std::size_t i) {
    note(i - 1, "backslash-quote",
         quoteCount_ == 2 ? "there are no escapes: \\\" ends the string here"
                          : "there are no escapes: \\\" starts a string here");
  }

  void noteCommaInValue(std::size_t i) {
    note(i, "comma-in-value",
         "comma inside a quoted value: the property ends here, and the whole string becomes a key "
         "instead of a value of " +
             quoted(current_.properties[currentKey_].key.text));
  }

  void noteClosedString() {
    if (curly_ <= 0) {
      note(quotePos_, "string-outside-object",
           "string outside any object: it is not part of a rule");
      return;
    }
    if (square_ == 1 && currentKey_ != kNoKey && colonCount_ == 0 &&
        !current_.properties[currentKey_].values.empty()) {
      note(quotePos_, "missing-comma",
           "no comma before this string: it becomes another value of " +
               quoted(current_.properties[currentKey_].key.text));
    }
  }

  void noteStray(std::size_t i, char c) {
    if (quoteCount_ != 0 || colonCount_ != 0 || isBlank(c) || isStructural(c)) return;
    if (i == 0 || strayEnd_ != i) {
      note(i, "stray-text",
           "text outside quotes and not after a ':' is ignored by the reader (only strings and "
           "the raw text after a ':' are read)");
    }
    strayEnd_ = i + 1;
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

  void noteKey(const ScannedString& key) {
    if (curly_ <= 0) return;  // outside objects: string-outside-object says it
    for (const ScannedProperty& p : current_.properties) {
      if (p.key.text == key.text && !key.text.empty()) {
        note(key.offset, "duplicate-key",
             "key " + quoted(key.text) +
                 " appears again in this object: the reader merges both "
                 "value lists" +
                 (key.text == "id" ? " and the first value is the id" : ""));
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
  // The reader's state, under the reader's names.
  int quoteCount_ = 0;
  std::size_t quotePos_ = 0;
  int colonCount_ = 0;
  std::size_t colonPos_ = 0;
  int square_ = 0;
  int curly_ = 0;
  ScannedObject current_;
  std::size_t currentKey_ = kNoKey;  // index into current_.properties, or kNoKey
  // What the reader does not keep.
  std::size_t announcements_ = 0;
  std::vector<std::size_t> openCurly_;   // offsets of '{' not yet closed
  std::vector<std::size_t> openSquare_;  // offsets of '[' not yet closed
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

bool isRuleKey(std::string_view key) {
  return std::find(kRuleKeys.begin(), kRuleKeys.end(), key) != kRuleKeys.end();
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
