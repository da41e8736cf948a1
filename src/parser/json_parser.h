// JsonParser turns a rules document (a file or JSON text) into Rules in
// document order and adds up the three symbol totals the map sizes its
// automata with. It listens to the JSON reader, which hands it the top-level
// array; every announcement appends that array's objects as rules. It owns its
// rules; one build uses it from one thread, with no locking of its own.
// Allocation failure propagates as std::bad_alloc, with everything the parse
// allocated freed.
#ifndef TPA_PARSER_JSON_PARSER_H_
#define TPA_PARSER_JSON_PARSER_H_

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "json/json.h"
#include "json/json_object.h"
#include "parser/rule.h"

namespace tpa::parser {

class JsonParser : public json_config::JsonEventListener {
 public:
  JsonParser();
  JsonParser(const JsonParser&) = delete;
  JsonParser& operator=(const JsonParser&) = delete;
  ~JsonParser() override;

  // Every top-level array announces all objects read so far, so k arrays of
  // one object make k(k+1)/2 rules. The rules that further arrays make again
  // may cost at most this many bytes, counted as kRuleBytes per rule,
  // kStringBytes per application and destination, and one per key symbol
  // (fixed figures, so that a document means the same on every architecture).
  static constexpr std::int64_t kRepeatBudgetBytes = std::int64_t{1} << 26;  // 64 MiB
  static constexpr std::int64_t kRuleBytes = 96;
  static constexpr std::int64_t kStringBytes = 32;
  // The most symbols one automaton may be sized for: its 2n states are
  // counted in an int.
  static constexpr int kMaxAutomatonSymbols = INT_MAX / 2;

  // Parses `source`, a file path when fromFile is true, else the JSON text
  // itself, after forgetting any earlier result. Returns 0, the reader's
  // code, TPA_ERROR_JSON_FILE_NOT_FOUND when the file cannot be opened, or
  // TPA_ERROR_OOM when the rules are past the budget (overBudget()).
  [[nodiscard]] int parse(const std::string& source, bool fromFile);

  // Called by the reader with the top-level array; a null array sets the
  // status to TPA_ERROR_SA_INVALID_CAPACITTY and adds no rules.
  void didParseJson(json_config::json_array* array) override;

  // Lets `observer` (not owned; null for none) watch the reader of every
  // later parse.
  void observe(json_config::JsonObserver* observer) { this->observer = observer; }

  // Drops every rule and zeroes the status and the totals.
  void clear();

  [[nodiscard]] int grossAppBytesCount() const { return grossAppBytes; }
  [[nodiscard]] int grossIncludeBytesCount() const { return grossIncludeBytes; }
  [[nodiscard]] int grossExcludeBytesCount() const { return grossExcludeBytes; }
  [[nodiscard]] std::vector<Rule>& getRules() { return rules; }
  [[nodiscard]] const std::vector<Rule>& getRules() const { return rules; }
  [[nodiscard]] int getStatus() const { return status; }
  // The last parse stopped making rules: past kRepeatBudgetBytes of repeated
  // rules or kMaxAutomatonSymbols in a total.
  [[nodiscard]] bool overBudget() const { return overBudget_; }

 private:
  // Every rule announced since the last clear()/parse(), in announcement
  // order. Rules made before a failure stay until the next parse or clear.
  std::vector<Rule> rules;
  // Set by didParseJson (0 or -3) and by parse's failures; a successful
  // parse does not consult it.
  int status;
  // Sums of the rules' totals, added up by a successful parse only.
  int grossAppBytes;
  int grossIncludeBytes;
  int grossExcludeBytes;
  // What a run of rules costs: bytes against the repeat budget, and the
  // symbols of each automaton.
  struct Cost {
    std::int64_t bytes = 0;
    std::int64_t apps = 0;
    std::int64_t include = 0;
    std::int64_t exclude = 0;
    void add(const Rule& rule);
    Cost& operator+=(const Cost& other);
    [[nodiscard]] bool fitsAutomata() const;
  };
  // The last announcement made rules[firstOfLast_, size) from the first
  // objects of lastArray_, at the cost lastAnnounced_.
  const json_config::json_array* lastArray_ = nullptr;
  std::size_t firstOfLast_ = 0;
  Cost lastAnnounced_;
  Cost made_;                       // every rule made since the last clear()/parse()
  std::int64_t repeatedBytes_ = 0;  // bytes of the rules made again, within the budget
  bool overBudget_ = false;         // an announcement was refused; later ones are ignored
  json_config::JsonObserver* observer = nullptr;  // handed to the reader; not owned
};

}  // namespace tpa::parser

#endif  // TPA_PARSER_JSON_PARSER_H_
