#include "fuzz/status_rule.h"

#include <optional>
#include <strings.h>

#include <json-c/json.h>

namespace vemk::fuzz {

namespace {

/// The text of the object's member; of the last one where the key stands several times.
std::optional<std::string> member_text(json_object *root, const char *wanted) {
  std::optional<std::string> text;
  if (json_object_get_type(root) != json_type_object)
    return text;
  json_object_object_foreach(root, key, value) {
    if (std::string(key) == wanted && value != nullptr)
      text = json_object_get_string(value);
  }
  return text;
}

} // namespace

message_fate fate_of(const std::string &message) {
  json_object *const root = json_tokener_parse(message.c_str());
  const std::optional<std::string> service = member_text(root, "service");
  const std::optional<std::string> command = member_text(root, "cmd");
  json_object_put(root);
  if (!service || strcasecmp(service->c_str(), "internal-ipc") != 0)
    return message_fate::forwarded;
  if (!command || strcasecmp(command->c_str(), "status") != 0)
    return message_fate::dropped;
  return message_fate::answered;
}

const char *status_text(bool connected) {
  return connected ? R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })"
                   : R"({ "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" })";
}

} // namespace vemk::fuzz
