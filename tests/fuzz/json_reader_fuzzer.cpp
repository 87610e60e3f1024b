/// The first line is a key, the second an index, the rest a JSON text. Every answer of the reader,
/// for each value in the text, is held against what the JSON library says of the same text.

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <json-c/json.h>

#include "fuzz/expect.h"
#include "fuzz/script.h"
#include "json/json_reader.h"

namespace vemk::fuzz {

namespace {

constexpr std::size_t most_members = 16;
constexpr int most_values = 200;

std::string text_or_null(const char *text) {
  return text == nullptr ? "(null)" : std::string("text ") + text;
}

/// Asks a reader and the library the same questions, down to every value.
class comparison {
public:
  comparison(std::string asked_key, std::size_t asked_index)
      : key(std::move(asked_key)), index(asked_index) {}

  void compare(const json_reader &reader, json_object *value) {
    expect_equal("is_null", value == nullptr, reader.is_null());
    // What is nothing has only nothing inside, without end.
    if (value == nullptr)
      ++nothings_inside;
    if (++values <= most_values && nothings_inside < 2) {
      compare_elements(reader, value);
      compare_members(reader, value);
    }
    if (value == nullptr)
      --nothings_inside;
  }

private:
  void compare_elements(const json_reader &reader, json_object *value) {
    const bool is_array = json_object_get_type(value) == json_type_array;
    const std::size_t length = is_array ? json_object_array_length(value) : 0;
    expect_equal("array_length", length, reader.array_length());
    std::set<std::size_t> asked{index, length, std::numeric_limits<std::size_t>::max()};
    for (std::size_t i = 0; i < length && i < most_members; ++i)
      asked.insert(i);
    for (const std::size_t i : asked) {
      const bool exists = i < length;
      compare_element(reader, i, exists ? json_object_array_get_idx(value, i) : nullptr);
    }
  }

  void compare_element(const json_reader &reader, std::size_t i, json_object *element) {
    const bool has_text = element != nullptr && json_object_get_string_len(element) > 0;
    const std::unique_ptr<char, decltype(&free)> copy(reader.string_at(i), &free);
    expect_equal("string_at", text_or_null(has_text ? json_object_get_string(element) : nullptr),
                 text_or_null(copy.get()));
    expect_equal("int_at", element == nullptr ? 0 : json_object_get_int(element), reader.int_at(i));
    compare(reader.at(i), element);
  }

  void compare_members(const json_reader &reader, json_object *value) {
    std::set<std::string> asked{key, ""};
    if (json_object_get_type(value) == json_type_object) {
      json_object_object_foreach(value, name, unused) {
        static_cast<void>(unused);
        if (asked.size() < most_members)
          asked.insert(name);
      }
    }
    for (const std::string &name : asked)
      compare_member(reader, name, member_of(value, name));
  }

  static json_object *member_of(json_object *value, const std::string &wanted) {
    json_object *found = nullptr;
    if (json_object_get_type(value) == json_type_object) {
      json_object_object_foreach(value, name, member) {
        if (wanted == name)
          found = member;
      }
    }
    return found;
  }

  void compare_member(const json_reader &reader, const std::string &name, json_object *member) {
    const char *const text = member == nullptr ? nullptr : json_object_get_string(member);
    expect_equal("get_string", text_or_null(text), text_or_null(reader.get_string(name.c_str())));
    expect_equal("get_int", member == nullptr ? 0 : json_object_get_int(member),
                 reader.get_int(name.c_str()));
    compare(reader.member(name.c_str()), member);
  }

  std::string key;
  std::size_t index;
  int values = 0;
  int nothings_inside = 0;
};

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace vemk;
  fuzz::script_reader script(data, size);
  script.next_line();
  const std::string key = script.rest();
  script.next_line();
  const std::int64_t index = script.number(0, std::numeric_limits<std::int64_t>::max());
  const std::string text = script.following_lines();

  fuzz::comparison both(key.c_str(), static_cast<std::size_t>(index));
  const std::unique_ptr<json_object, decltype(&json_object_put)> value(
      json_tokener_parse(text.c_str()), &json_object_put);
  both.compare(json_reader(text.c_str()), value.get());
  both.compare(json_reader(value.get()), value.get());
  both.compare(json_reader(static_cast<const char *>(nullptr)), nullptr);
  return 0;
}
