// json_object is one object of a rules document as the reader collects it: a
// current key and, per key, the string values that followed it, kept exactly
// as cut from the text. json_array is the ordered list of closed objects that
// the reader hands to its listener. Both are plain values with deep copies;
// an array owns its objects. Not thread-safe: one reader fills them, and
// consumers read them afterwards.
#ifndef TPA_JSON_JSON_OBJECT_H_
#define TPA_JSON_JSON_OBJECT_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tpa::json_config {

class json_object {
 public:
  json_object();
  json_object(const json_object& other);
  json_object(json_object&& other) noexcept = default;
  json_object& operator=(const json_object& other);
  json_object& operator=(json_object&& other) noexcept = default;
  ~json_object() = default;

  // Forgets the key, the key count and every property.
  void clear();
  // Empties the current key only: the next quoted string becomes a key.
  void next();
  // Makes `key` current when no key is; otherwise reports and changes nothing.
  void set_key(std::string& key);
  // Appends `value` under the current key, even an empty one.
  void set_val(std::string& value);
  // The values of the current key, created empty when absent.
  std::vector<std::string>& get_vals();
  const std::string& get_curr_key() const;
  // The number of properties when it matches the key count; otherwise reports
  // and returns -1.
  [[nodiscard]] int count_properties() const;

  // Empty when the next quoted string is to become a key.
  std::string curr_key;
  // Successful set_key calls since the last clear(). Each key is expected to
  // be set once per object, so this equals properties.size(); a key set twice
  // or a key without values breaks that, and count_properties() says so.
  std::int32_t keys_count;
  // Per key, its values in reading order. A key gets an entry with its first
  // value (or through get_vals()).
  std::map<std::string, std::vector<std::string>> properties;
};

class json_array {
 public:
  json_array() = default;
  json_array(const json_array&) = default;
  json_array(json_array&&) noexcept = default;
  json_array& operator=(const json_array&) = default;
  json_array& operator=(json_array&&) noexcept = default;
  // Clears every object before the objects are destroyed.
  ~json_array();

  // Appends a copy of `object`; the argument is not changed.
  void push(json_object& object);

  // In the order they were pushed.
  std::vector<json_object> objects;
};

}  // namespace tpa::json_config

#endif  // TPA_JSON_JSON_OBJECT_H_
