// The calls of the JSON layer that need memory: each is one request of fake_memory, and fails when
// it is refused as the library's own does without memory.
#include <cstring>

#include <json-c/json.h>

#include "fakes/fake_memory.h"

using vemk::fake_memory::refuses;

extern "C" {

json_object *__real_json_tokener_parse(const char *text);
json_object *__real_json_object_new_object();
json_object *__real_json_object_new_string(const char *value);
int __real_json_object_object_add(json_object *object, const char *key, json_object *value);
const char *__real_json_object_to_json_string(json_object *object);
char *__real_strdup(const char *text);

json_object *__wrap_json_tokener_parse(const char *text) {
  return refuses("json_tokener_parse") ? nullptr : __real_json_tokener_parse(text);
}

json_object *__wrap_json_object_new_object() {
  return refuses("json_object_new_object") ? nullptr : __real_json_object_new_object();
}

json_object *__wrap_json_object_new_string(const char *value) {
  return refuses("json_object_new_string") ? nullptr : __real_json_object_new_string(value);
}

int __wrap_json_object_object_add(json_object *object, const char *key, json_object *value) {
  return refuses("json_object_object_add") ? -1 : __real_json_object_object_add(object, key, value);
}

const char *__wrap_json_object_to_json_string(json_object *object) {
  return refuses("json_object_to_json_string") ? nullptr
                                               : __real_json_object_to_json_string(object);
}

char *__wrap_strdup(const char *text) {
  return refuses("strdup", strlen(text) + 1) ? nullptr : __real_strdup(text);
}
}
