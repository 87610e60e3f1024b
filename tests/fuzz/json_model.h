/// JSON values as a writer puts them together.
#ifndef VEMK_TESTS_FUZZ_JSON_MODEL_H
#define VEMK_TESTS_FUZZ_JSON_MODEL_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <json-c/json.h>

namespace vemk::fuzz {

struct json_value {
  /// An object, an array, a string or an int.
  json_type type;
  std::string text;
  std::int32_t number = 0;
  /// An object's in the order in which their keys came up; an array's have no keys.
  std::vector<std::pair<std::string, std::shared_ptr<json_value>>> members;
  /// An array's next slot for texts and numbers.
  std::size_t next_slot = 0;
  /// Replaced in its container, or inside something that was.
  bool is_gone = false;

  bool is_array() const { return type == json_type_array; }

  /// Adds a text or a number as a writer does.
  void put(const std::string &key, const std::shared_ptr<json_value> &value);

  /// Adds an array or an object as a writer does.
  void add_child(const std::string &key, const std::shared_ptr<json_value> &value);

  /// Compares with what the JSON library read.
  void expect_same(json_object *actual) const;

private:
  void set_member(const std::string &key, const std::shared_ptr<json_value> &value);
  void leave();
};

} // namespace vemk::fuzz

#endif
