#include "vemkctl/message_format.h"

#include <cstdint>
#include <memory>

#include <json-c/json.h>

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

void append_escaped(std::string &line, char c) {
  const auto byte = static_cast<unsigned char>(c);
  switch (c) {
  case '\n':
    line += "\\n";
    return;
  case '\r':
    line += "\\r";
    return;
  case '\t':
    line += "\\t";
    return;
  default:
    break;
  }
  if (byte >= 0x20 && byte != 0x7f) {
    line += c;
    return;
  }
  line += "\\x";
  append_hex(line, byte);
}

std::string as_text(std::string_view message) {
  std::string line;
  line.reserve(message.size());
  for (const char c : message)
    append_escaped(line, c);
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
  return json_object_to_json_string_ext(object.get(),
                                        JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// Bytes that follow the first of a sequence, and the bounds of the second one; 0xff: no sequence.
struct utf8_lead_t {
  unsigned following;
  unsigned char lowest_second;
  unsigned char highest_second;
};

constexpr unsigned no_sequence = 0xff;

utf8_lead_t utf8_lead(unsigned char byte) {
  if (byte < 0x80)
    return {0, 0, 0};
  if (byte < 0xc2 || byte > 0xf4)
    return {no_sequence, 0, 0};
  if (byte < 0xe0)
    return {1, 0x80, 0xbf};
  if (byte < 0xf0)
    return {2, static_cast<unsigned char>(byte == 0xe0 ? 0xa0 : 0x80),
            static_cast<unsigned char>(byte == 0xed ? 0x9f : 0xbf)};
  return {3, static_cast<unsigned char>(byte == 0xf0 ? 0x90 : 0x80),
          static_cast<unsigned char>(byte == 0xf4 ? 0x8f : 0xbf)};
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
    return as_text(message);
  case message_format::hex:
    return as_hex(message);
  case message_format::json:
    return as_json(message, from_module);
  }
  return {};
}

bool is_utf8(std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    const utf8_lead_t lead = utf8_lead(static_cast<unsigned char>(bytes[i]));
    if (lead.following == no_sequence || bytes.size() - i <= lead.following)
      return false;
    for (unsigned k = 1; k <= lead.following; ++k) {
      const auto byte = static_cast<unsigned char>(bytes[i + k]);
      if (byte < (k == 1 ? lead.lowest_second : 0x80) ||
          byte > (k == 1 ? lead.highest_second : 0xbf))
        return false;
    }
    i += 1 + lead.following;
  }
  return true;
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
