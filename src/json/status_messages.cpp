#include "json/status_messages.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <strings.h>

#include "json/json_reader.h"
#include "json/json_writer.h"

namespace vemk {

namespace {

constexpr char service_name[] = "internal-ipc";
constexpr char status_command[] = "status";
constexpr char message_version[] = "2.0";

/// Whether the text holds the service's name, in any letter case. Most texts have few hyphens or
/// none, and looking for one takes a tenth of the time of strcasestr.
bool holds_service_name(const char *text) {
  constexpr std::ptrdiff_t before_hyphen = 8;
  static_assert(service_name[before_hyphen] == '-', "the hyphen is found first");
  for (const char *hyphen = text; (hyphen = strchr(hyphen, '-')) != nullptr; ++hyphen) {
    if (hyphen - text >= before_hyphen &&
        strncasecmp(hyphen - before_hyphen, service_name, sizeof service_name - 1) == 0)
      return true;
  }
  return false;
}

/// Whether the parser could find the service's name in a text. The parser copies the bytes of a
/// string, except escapes that begin with a backslash, and no other value reads like the name.
/// Nearly all messages are for the roaming service, and parsing takes hundreds of times the memory
/// of some of them.
bool may_be_own(const char *text) {
  return strchr(text, '\\') != nullptr || holds_service_name(text);
}

} // namespace

bus_message_kind classify_bus_message(const buffer_info_t &message) {
  const auto *const text = reinterpret_cast<const char *>(message.data);
  if (text == nullptr || !may_be_own(text))
    return bus_message_kind::foreign;

  const json_reader json(text);
  if (json.is_null())
    return bus_message_kind::foreign;

  const char *const service = json.get_string("service");
  if (service == nullptr || strcasecmp(service, service_name) != 0)
    return bus_message_kind::foreign;

  const char *const command = json.get_string("cmd");
  if (command == nullptr || strcasecmp(command, status_command) != 0)
    return bus_message_kind::internal;
  return bus_message_kind::status_request;
}

void queue_status_message(message_queue_t &queue, bool connected) {
  json_writer message(service_name, connected ? "connected" : "disconnected", "", message_version);
  const char *const text = message.to_string();
  if (text == nullptr)
    return;
  const auto buffer = std::make_shared<buffer_info_t>();
  if (buffer->append(text, static_cast<std::uint32_t>(strlen(text))) != nullptr)
    queue.push(buffer);
}

} // namespace vemk
