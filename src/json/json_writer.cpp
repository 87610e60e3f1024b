#include "json/json_writer.h"

#include <cstdlib>
#include <cstring>

#include <json-c/json.h>

namespace vemk {

json_writer::json_writer(const char *service, const char *cmd, const char *ap_mac,
                         const char *version)
    : object(json_object_new_object()), is_array(false), text(nullptr), parent(nullptr),
      next_index(0) {
  const struct {
    const char *key;
    const char *value;
  } members[] = {{"version", version}, {"service", service}, {"cmd", cmd}, {"ap-mac", ap_mac}};
  for (const auto &member : members) {
    if (*member.value != '\0')
      add_string(member.key, member.value);
  }
}

json_writer::json_writer(bool as_array, json_writer &enclosing, const char *key)
    : object(as_array ? json_object_new_array() : json_object_new_object()), is_array(as_array),
      text(nullptr), parent(&enclosing), next_index(0) {
  if (object == nullptr)
    return;
  int failed = -1;
  if (enclosing.object != nullptr)
    failed = enclosing.is_array ? json_object_array_add(enclosing.object, object)
                                : json_object_object_add(enclosing.object, key, object);
  if (failed != 0) {
    json_object_put(object);
    object = nullptr;
  }
}

json_writer json_writer::child_array(json_writer &enclosing, const char *key) {
  return json_writer(true, enclosing, key);
}

json_writer json_writer::child_object(json_writer &enclosing, const char *key) {
  return json_writer(false, enclosing, key);
}

json_writer::~json_writer() {
  if (parent == nullptr)
    json_object_put(object);
  free(text);
}

void json_writer::add_string(const char *key, const char *value) {
  put(key, json_object_new_string(value));
}

void json_writer::add_int(const char *key, int value) {
  put(key, json_object_new_int(value));
}

void json_writer::put(const char *key, json_object *value) {
  int failed = -1;
  if (object != nullptr && value != nullptr)
    failed = is_array
                 ? json_object_array_put_idx(object, static_cast<std::size_t>(next_index), value)
                 : json_object_object_add(object, key, value);
  if (failed != 0)
    json_object_put(value);
  else if (is_array)
    ++next_index;
}

const char *json_writer::to_string() {
  free(text);
  const char *const serialised = json_object_to_json_string(object);
  text = serialised == nullptr ? nullptr : strdup(serialised);
  return text;
}

} // namespace vemk
