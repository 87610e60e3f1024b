#include "unit/json/wrapped_json.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include <json-c/json.h>

namespace {

using vemk::wrapped_json::call;

std::array<int, static_cast<std::size_t>(call::count)> calls_to_failure;
std::vector<std::string> calls;
std::size_t parsed = 0;
std::size_t made = 0;
std::vector<const void *> alive;

bool fails(call kind) {
  int &left = calls_to_failure[static_cast<std::size_t>(kind)];
  return left > 0 && --left == 0;
}

} // namespace

extern "C" {

json_object *__real_json_tokener_parse(const char *text);
json_object *__real_json_object_new_object();
json_object *__real_json_object_new_array();
json_object *__real_json_object_new_string(const char *value);
json_object *__real_json_object_new_int(int32_t value);
int __real_json_object_object_add(json_object *object, const char *key, json_object *value);
int __real_json_object_array_add(json_object *array, json_object *value);
int __real_json_object_array_put_idx(json_object *array, size_t index, json_object *value);
int __real_json_object_put(json_object *object);
char *__real_strdup(const char *text);
void __real_free(void *block);
void *__real_realloc(void *block, size_t size);

json_object *__wrap_json_tokener_parse(const char *text) {
  ++parsed;
  return __real_json_tokener_parse(text);
}

json_object *__wrap_json_object_new_object() {
  return fails(call::new_object) ? nullptr : __real_json_object_new_object();
}

json_object *__wrap_json_object_new_array() {
  return fails(call::new_array) ? nullptr : __real_json_object_new_array();
}

json_object *__wrap_json_object_new_string(const char *value) {
  return fails(call::new_string) ? nullptr : __real_json_object_new_string(value);
}

json_object *__wrap_json_object_new_int(int32_t value) {
  return fails(call::new_int) ? nullptr : __real_json_object_new_int(value);
}

int __wrap_json_object_object_add(json_object *object, const char *key, json_object *value) {
  calls.push_back(std::string("object_add ") + key);
  return fails(call::object_add) ? -1 : __real_json_object_object_add(object, key, value);
}

int __wrap_json_object_array_add(json_object *array, json_object *value) {
  calls.emplace_back("array_add");
  return fails(call::array_add) ? -1 : __real_json_object_array_add(array, value);
}

int __wrap_json_object_array_put_idx(json_object *array, size_t index, json_object *value) {
  calls.push_back("array_put " + std::to_string(index));
  return fails(call::array_put) ? -1 : __real_json_object_array_put_idx(array, index, value);
}

int __wrap_json_object_put(json_object *object) {
  calls.emplace_back(object == nullptr ? "put null" : "put");
  return __real_json_object_put(object);
}

char *__wrap_strdup(const char *text) {
  if (fails(call::copy_text))
    return nullptr;
  char *const copy = __real_strdup(text);
  ++made;
  alive.push_back(copy);
  return copy;
}

void __wrap_free(void *block) {
  alive.erase(std::remove(alive.begin(), alive.end(), block), alive.end());
  __real_free(block);
}

void *__wrap_realloc(void *block, size_t size) {
  return fails(call::grow_buffer) ? nullptr : __real_realloc(block, size);
}
}

namespace vemk::wrapped_json {

void reset() {
  calls_to_failure.fill(0);
  calls.clear();
  parsed = 0;
  made = 0;
  alive.clear();
}

void fail(call kind, int nth) {
  calls_to_failure[static_cast<std::size_t>(kind)] = nth;
}

std::vector<std::string> record() {
  return calls;
}

std::size_t texts_parsed() {
  return parsed;
}

std::size_t texts_made() {
  return made;
}

std::size_t texts_alive() {
  return alive.size();
}

} // namespace vemk::wrapped_json
