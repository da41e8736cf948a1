#include "json/json_object.h"

#include <utility>

#include "base/log.h"

namespace tpa::json_config {

json_object::json_object() : keys_count(0) {}

json_object::json_object(const json_object& other)
    : curr_key(other.curr_key), keys_count(other.keys_count), properties(other.properties) {}

json_object& json_object::operator=(const json_object& other) {
  if (this != &other) {
    curr_key = other.curr_key;
    keys_count = other.keys_count;
    properties = other.properties;
  }
  return *this;
}

void json_object::clear() {
  curr_key.clear();
  keys_count = 0;
  properties.clear();
}

void json_object::next() { curr_key.clear(); }

void json_object::set_key(std::string& key) {
  if (!curr_key.empty()) {
    TPA_REPORT(56, "set_key", "current key must be empty");
    return;
  }
  curr_key = key;
  ++keys_count;
}

void json_object::set_val(std::string& value) { properties[curr_key].push_back(value); }

std::vector<std::string>& json_object::get_vals() { return properties[curr_key]; }

const std::string& json_object::get_curr_key() const { return curr_key; }

int json_object::count_properties() const {
  // The counter is sign-extended for the comparison, so a negative count can
  // never match a size.
  if (static_cast<long long>(properties.size()) != static_cast<long long>(keys_count)) {
    TPA_REPORT(77, "count_properties", "size of properteis array must match count of properties");
    return -1;
  }
  return static_cast<int>(properties.size());
}

json_array::~json_array() {
  for (json_object& object : objects) object.clear();
}

void json_array::push(json_object& object) { objects.push_back(object); }

}  // namespace tpa::json_config
