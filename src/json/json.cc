#include "json/json.h"

#include <cstdint>
#include <exception>

#include "base/log.h"
#include "tpa/api/constants.h"

namespace tpa::json_config {
namespace {

// What parse() returns for a stream that is not open or cannot be read.
constexpr int kUnreadable = -1;

// The text's length cut to 32 bits, as the reader counts positions in int.
std::int32_t length32(const std::string& text) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(text.size()));
}

}  // namespace

json::json()
    : braces_count(0),
      brackets_count(0),
      quote_pos(0),
      colon_count(0),
      colon_pos(0),
      quote_count(0),
      comma_count(0),
      square_level(0),
      curly_level(0),
      listener(nullptr),
      observer(nullptr) {}

int json::parse(std::ifstream& stream, JsonEventListener* listener) {
  if (!stream.is_open()) {
    TPA_REPORT(68, "parse", "json file to parse must be present");
    return kUnreadable;
  }
  // Opened at its end, the stream's position is its size. A stream already
  // in error reports -1 here; it is refused rather than sized.
  const std::streamoff size = stream.tellg();
  if (size < 0) return kUnreadable;
  std::string text;
  try {
    text.assign(static_cast<std::size_t>(size), '\0');
  } catch (const std::exception&) {  // too large to hold: length or allocation error
    return kUnreadable;
  }
  stream.seekg(0, std::ios::beg);
  stream.read(text.data(), static_cast<std::streamsize>(size));
  if (stream.fail() || stream.bad()) return kUnreadable;
  return parse_json_str(text, listener);
}

int json::parse_json_str(const std::string& text, JsonEventListener* listener) {
  if (text.empty()) return error::TPA_ERROR_ARRAY_OUT_OF_INDEX;
  json_str = text;
  this->listener = listener;
  const int built = automaton(text);
  if (built != error::TPA_ERROR_NONE) return built;
  traverse(text);
  if (observer) observer->on_end(*this);
  const int balanced = validate();
  if (balanced != error::TPA_ERROR_NONE) return balanced;
  std::string().swap(json_str);
  // The dictionary has served the scan; free it rather than keep it.
  dict.reset();
  return error::TPA_ERROR_NONE;
}

int json::automaton(const std::string& text) {
  // No event ever depends on the dictionary's content, and nothing reads it
  // before it is dropped: only its table is reserved, which is what fails
  // for a document too large to read (zero-filled, it costs no resident
  // memory), and the text is never inserted.
  dict = std::make_unique<dawg>(length32(text));
  return dict->construct();
}

void json::traverse(const std::string& text) {
  const std::int32_t n = length32(text);
  for (std::int32_t i = 0; i < n; ++i) {
    const char c = text[i];
    if (observer) observe(i, c);
    switch (c) {
      case '{': on_open_curly_brace(i); break;
      case '}': on_close_curly_brace(i); break;
      case '[': on_open_square_bracket(i); break;
      case ']': on_close_square_bracket(i); break;
      case '"': on_quotes(i); break;
      case ':': on_colon(i); break;
      case ',': on_comma(i); break;
      default: break;
    }
  }
}

void json::observe(std::int32_t index, char c) {
  switch (c) {
    case '{': case '}': case '[': case ']': case '"': case ':': case ',':
      observer->on_event(*this, index, c);
      break;
    default:
      break;
  }
}

int json::validate() {
  if (braces_count != 0) {
    __android_log_print(log::kError, log::kEngineTag, "[ERROR] [JSON] braces count must be 0%s",
                        log::kLineEnd);
    return error::TPA_ERROR_JSON_PARSE_MISMATCH;
  }
  if (brackets_count != 0) {
    __android_log_print(log::kError, log::kEngineTag, "[ERROR] [JSON] brackets count must be 0%s",
                        log::kLineEnd);
    return error::TPA_ERROR_JSON_PARSE_MISMATCH;
  }
  return error::TPA_ERROR_NONE;
}

void json::on_open_curly_brace(int) {
  ++braces_count;
  ++curly_level;
  curr_object.clear();
}

void json::on_close_curly_brace(int index) {
  if (quote_count == 0 && colon_count != 0) {
    extract_value(index, colon_pos);
    colon_count = 0;
  }
  --braces_count;
  --curly_level;
  objects.push(curr_object);
  if (observer) observer->on_push(*this);
}

void json::on_open_square_bracket(int) {
  ++brackets_count;
  ++square_level;
}

void json::on_close_square_bracket(int) {
  const bool outermost = square_level == 1;
  --brackets_count;
  --square_level;
  if (outermost) announce();
}

void json::on_quotes(int index) {
  if (++quote_count == 2) {
    extract_value(index, quote_pos);
    quote_count = 0;
    colon_count = 0;
  }
  quote_pos = index;
}

void json::on_colon(int index) {
  ++colon_count;
  colon_pos = index;
}

void json::on_comma(int index) {
  ++comma_count;
  if (quote_count == 0 && colon_count != 0) {
    extract_value(index, colon_pos);
    colon_count = 0;
  }
  if (square_level == 1) curr_object.next();
}

void json::announce() {
  if (listener) listener->didParseJson(&objects);
  if (observer) observer->on_announce(*this);
}

void json::extract_value(int end, int start) {
  const std::int64_t from = std::int64_t{start} + 1;
  // Within one scan `start` is an earlier delimiter than `end`, so this holds;
  // a reader reused for a shorter text, or a direct call, may break it.
  if (from < 0 || from > static_cast<std::int64_t>(json_str.size())) return;
  const std::int64_t length = std::int64_t{end} - start - 1;
  // A negative length reads to the end of the text, like an unsigned count.
  std::string value = length < 0 ? json_str.substr(static_cast<std::size_t>(from))
                                 : json_str.substr(static_cast<std::size_t>(from),
                                                   static_cast<std::size_t>(length));
  const bool brackets = value == "[]";
  if (brackets) value.clear();
  const bool as_key = curr_object.get_curr_key().empty();
  if (as_key) {
    curr_object.set_key(value);
  } else {
    curr_object.set_val(value);
  }
  if (observer) observer->on_cut(*this, from, value, brackets, as_key);
}

}  // namespace tpa::json_config
