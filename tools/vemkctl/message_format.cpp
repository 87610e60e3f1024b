#include "vemkctl/message_format.h"

#include <cstdint>
#include <memory>

#include <json-c/json.h>

#include "terminal_text/terminal_text.h"

namespace vemk {

namespace {

constexpr char digits[] = "0123456789abcdef";

using json_ptr = std::unique_ptr<json_object, decltype(&json_object_put)>;

void append_hex(std::string &line, unsigned char byte) {
  line += digits[byte >> 4];
  line += digits[byte & 0x0f];
}

std::string as_hex(std::string_view message) {
  std::string line;
  line.reserve(message.size() * 2);
  for (const char c : message)
    append_hex(line, static_cast<unsigned char>(c));
  return line;
}

/// The library leaves U+0080 to U+009F as they are, and a terminal would obey them. In UTF-8
/// another byte always follows 0xc2.
std::string with_c1_escaped(std::string_view json) {
  std::string line;
  line.reserve(json.size());
  for (std::size_t i = 0; i < json.size(); ++i) {
    const bool is_c1 = json[i] == '\xc2' && static_cast<unsigned char>(json[i + 1]) < 0xa0;
    if (is_c1) {
      line += "\\u00";
      append_hex(line, static_cast<unsigned char>(json[++i]));
    } else {
      line += json[i];
    }
  }
  return line;
}

json_object *json_string(std::string_view text) {
  return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

std::string as_json(std::string_view message, int from_module) {
  const json_ptr object(json_object_new_object(), json_object_put);
  json_object_object_add(object.get(), "from", json_object_new_int(from_module));
  json_object_object_add(object.get(), "length",
                         json_object_new_int64(static_cast<std::int64_t>(message.size())));
  if (is_utf8(message))
    json_object_object_add(object.get(), "text", json_string(message));
  else
    json_object_object_add(object.get(), "hex", json_string(as_hex(message)));
  return with_c1_escaped(json_object_to_json_string_ext(
      object.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
}

std::string string_member(json_object *object, const char *key) {
  json_object *value = nullptr;
  if (!json_object_object_get_ex(object, key, &value) ||
      !json_object_is_type(value, json_type_string))
    return {};
  return json_object_get_string(value);
}

} // namespace

std::string format_message(std::string_view message, message_format format, int from_module) {
  switch (format) {
  case message_format::text:
    return on_one_line(message);
  case message_format::hex:
    return as_hex(message);
  case message_format::json:
    return as_json(message, from_module);
  }
  return {};
}

std::optional<bool> connected_status(std::string_view message) {
  const std::string text(message);
  const json_ptr object(json_tokener_parse(text.c_str()), json_object_put);
  if (!object || string_member(object.get(), "service") != "internal-ipc")
    return std::nullopt;
  const std::string cmd = string_member(object.get(), "cmd");
  if (cmd != "connected" && cmd != "disconnected")
    return std::nullopt;
  return cmd == "connected";
}

} // namespace vemk
