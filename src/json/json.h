// json is the character-level reader of rules documents. One scan reacts to
// the seven structural characters { } [ ] " : , wherever they stand (there
// are no escapes), cuts keys and values out of the text into json_objects and
// announces the collected json_array to a JsonEventListener each time the
// outermost array closes. It is not a general JSON parser: unknown syntax is
// ignored and only the balance of braces and brackets is checked.
// A JsonObserver, when set, is told what the scan reads as it reads it.
// A json serves one parse; it never owns its listener or its observer. Not
// thread-safe.
#ifndef TPA_JSON_JSON_H_
#define TPA_JSON_JSON_H_

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "json/dawg.h"
#include "json/json_object.h"

namespace tpa::json_config {

// Receives the reader's top-level array; it may be called more than once
// per parse, each time with the same, grown array.
class JsonEventListener {
 public:
  virtual void didParseJson(json_array* array) = 0;
  virtual ~JsonEventListener() = default;
};

class json;

// Watches one scan in the reader's own terms, for tools that explain a
// document: each structural character before the reader reacts to it, each
// key or value as cut and stored, each object pushed, each announcement and
// the end of the scan. Every call passes the reader, whose public state the
// observer may read (never change). The library itself never sets one; a
// scan without an observer pays one null check per character.
class JsonObserver {
 public:
  virtual ~JsonObserver() = default;
  // One of { } [ ] " : , at `index`; the reader's state is still that before it.
  virtual void on_event(const json& reader, std::int32_t index, char c) = 0;
  // The text from `offset` was cut and stored as `value` ("[]" already made
  // empty: `brackets`), as the new current key when `as_key`, else as a value
  // of the current key. The reader's object already holds it.
  virtual void on_cut(const json& reader, std::int64_t offset, const std::string& value,
                      bool brackets, bool as_key) = 0;
  // The current object was pushed onto `reader.objects`.
  virtual void on_push(const json& reader) = 0;
  // `reader.objects` was announced to the listener (or would have been).
  virtual void on_announce(const json& reader) = 0;
  // The scan is over; the balance is checked next.
  virtual void on_end(const json& reader) = 0;
};

class json {
 public:
  json();
  json(const json&) = delete;
  json& operator=(const json&) = delete;

  // Reads a whole file and parses it. The stream must be opened in input,
  // binary and at-end mode: its size is taken from the current position.
  // -1 when the stream is not open (reported) or cannot be read.
  [[nodiscard]] int parse(std::ifstream& stream, JsonEventListener* listener);
  // Parses `text`: -2 when it is empty, TPA_ERROR_OOM when the dictionary
  // cannot be built, TPA_ERROR_JSON_PARSE_MISMATCH (logged) when braces or
  // brackets do not balance. The listener may have been called even then.
  // Allocation failure propagates as std::bad_alloc; the reader stays
  // destructible and frees what it holds.
  [[nodiscard]] int parse_json_str(const std::string& text, JsonEventListener* listener);
  // Reserves the key dictionary for `text`, replacing any earlier one; as no
  // event depends on its content, it is never filled. TPA_ERROR_OOM when the
  // reservation fails.
  [[nodiscard]] int automaton(const std::string& text);
  // The scan: every event of `text`.
  void traverse(const std::string& text);
  // The balance check on its own (logged when it fails).
  [[nodiscard]] int validate();

  void on_open_curly_brace(int index);
  void on_close_curly_brace(int index);
  void on_open_square_bracket(int index);
  void on_close_square_bracket(int index);
  void on_quotes(int index);
  void on_colon(int index);
  void on_comma(int index);

  // Tells the observer of a structural character.
  void observe(std::int32_t index, char c);
  // Hands the collected objects to the listener, if there is one.
  void announce();
  // Takes the text strictly between two delimiter positions as the current
  // key (when none is set) or as a value of it; "[]" is taken as empty.
  void extract_value(int end, int start);

  // The dictionary reserved for the whole text; dropped after a successful parse.
  std::unique_ptr<dawg> dict;
  // Each pair below moves together: the first of a pair is checked at the
  // end of a parse, the second decides events.
  std::int32_t braces_count;    // '{' minus '}'
  std::int32_t brackets_count;  // '[' minus ']'
  std::int32_t quote_pos;       // index of the last '"'
  std::int32_t colon_count;     // colons since the last value taken; non-zero: a value is pending
  std::int32_t colon_pos;       // index of the last ':'
  std::int32_t quote_count;     // 1 inside a string, else 0
  std::int32_t comma_count;     // commas seen, never read
  std::int32_t square_level;    // '[' depth
  std::int32_t curly_level;     // '{' depth
  std::string json_str;         // the text being parsed; emptied after success
  json_object curr_object;      // the object being filled
  json_array objects;           // every object closed so far, in closing order
  JsonEventListener* listener;  // not owned; set by parse_json_str
  JsonObserver* observer;       // not owned; null unless a tool watches the scan
};

}  // namespace tpa::json_config

#endif  // TPA_JSON_JSON_H_
