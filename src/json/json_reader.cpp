#include "json/json_reader.h"

#include <cstring>

#include <json-c/json.h>

namespace vemk {

json_reader::json_reader(json_object *value) : object(value), owned(false) {}

json_reader::json_reader(const char *text)
    : object(text == nullptr ? nullptr : json_tokener_parse(text)), owned(true) {}

json_reader::~json_reader() {
  if (owned)
    json_object_put(object);
}

bool json_reader::is_null() const {
  return object == nullptr;
}

std::size_t json_reader::array_length() const {
  if (!json_object_is_type(object, json_type_array))
    return 0;
  return json_object_array_length(object);
}

json_reader json_reader::at(std::size_t index) const {
  return json_reader(element(index));
}

char *json_reader::string_at(std::size_t index) const {
  json_object *const value = element(index);
  if (value == nullptr || json_object_get_string_len(value) == 0)
    return nullptr;
  return strdup(json_object_get_string(value));
}

int json_reader::int_at(std::size_t index) const {
  return json_object_get_int(element(index));
}

json_reader json_reader::member(const char *key) const {
  return json_reader(find(key));
}

int json_reader::get_int(const char *key) const {
  return json_object_get_int(find(key));
}

const char *json_reader::get_string(const char *key) const {
  return json_object_get_string(find(key));
}

json_object *json_reader::find(const char *key) const {
  json_object *value = nullptr;
  if (!json_object_is_type(object, json_type_object) ||
      !json_object_object_get_ex(object, key, &value))
    return nullptr;
  return value;
}

json_object *json_reader::element(std::size_t index) const {
  return index < array_length() ? json_object_array_get_idx(object, index) : nullptr;
}

} // namespace vemk
