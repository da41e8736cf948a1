// JsonParser turns a rules document (a file or JSON text) into Rules in
// document order and adds up the three symbol totals the map sizes its
// automata with. It listens to the JSON reader, which hands it the top-level
// array; every announcement appends that array's objects as rules. It owns its
// rules; one build uses it from one thread, with no locking of its own.
#ifndef TPA_PARSER_JSON_PARSER_H_
#define TPA_PARSER_JSON_PARSER_H_

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

  // Parses `source`, a file path when fromFile is true, else the JSON text
  // itself, after forgetting any earlier result. Returns 0, the reader's
  // code, or TPA_ERROR_JSON_FILE_NOT_FOUND when the file cannot be opened.
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
  // Every top-level array announces all objects read so far, so k arrays make
  // k(k+1)/2 rules. Rules made again from objects announced before are counted
  // here; past a bound no real document reaches, the parse fails with
  // TPA_ERROR_OOM instead of exhausting memory.
  std::size_t previouslyAnnounced = 0;
  std::size_t repeatedRules = 0;
  bool tooManyRules = false;
  json_config::JsonObserver* observer = nullptr;  // handed to the reader; not owned
};

}  // namespace tpa::parser

#endif  // TPA_PARSER_JSON_PARSER_H_
