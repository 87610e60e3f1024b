#include "console_json.h"

#include "fault_service.h"

#include <json-c/json.h>
#include <memory>
#include <stdexcept>

namespace vemk {
namespace {

using json_t = std::unique_ptr<json_object, int (*)(json_object *)>;

json_t own(json_object *object) {
  return {object, json_object_put};
}

std::string text_of(const json_t &object) {
  return json_object_to_json_string_ext(object.get(),
                                        JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// ---- what the page is told ----

void add_number(json_object *object, const char *key, uint64_t value) {
  json_object_object_add(object, key, json_object_new_int64(static_cast<int64_t>(value)));
}

void add_text(json_object *object, const char *key, const std::string &value) {
  json_object_object_add(object, key,
                         json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

void add_bool(json_object *object, const char *key, bool value) {
  json_object_object_add(object, key, json_object_new_boolean(value));
}

std::string hexadecimal(std::string_view bytes) {
  constexpr const char *digits = "0123456789abcdef";
  std::string result;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    result.push_back(digits[value >> 4U]);
    result.push_back(digits[value & 15U]);
  }
  return result;
}

const char *name_of(opcode_t kind) {
  switch (kind) {
  case opcode_t::continuation:
    return "continuation";
  case opcode_t::text:
    return "text";
  case opcode_t::binary:
    return "binary";
  case opcode_t::close:
    return "close";
  case opcode_t::ping:
    return "ping";
  case opcode_t::pong:
    return "pong";
  }
  return "unknown";
}

json_object *describe_daemons(const fault_service &service) {
  auto *list = json_object_new_array();
  for (const auto &[number, daemon] : service.connected()) {
    auto *one = json_object_new_object();
    add_number(one, "id", number);
    add_text(one, "address", daemon.link->peer());
    add_number(one, "since", static_cast<uint64_t>(daemon.since_ms));
    if (daemon.last_ping_ms)
      add_number(one, "last_ping", static_cast<uint64_t>(*daemon.last_ping_ms));
    add_number(one, "pings", daemon.pings);
    add_number(one, "pings_unanswered", daemon.pings_unanswered);
    add_bool(one, "open", daemon.link->open());
    json_object_array_add(list, one);
  }
  return list;
}

json_object *describe_switches(const switches_t &switches) {
  auto *object = json_object_new_object();
  add_bool(object, "no_pongs", switches.no_pongs);
  add_bool(object, "stop_reading", switches.stop_reading);
  add_number(object, "fragments", static_cast<uint64_t>(switches.fragments));
  add_number(object, "delay_ms", static_cast<uint64_t>(switches.delay_ms));
  return object;
}

json_object *describe_side(const traffic_log &traffic, direction_t direction, int64_t now_ms) {
  auto *object = json_object_new_object();
  const auto &totals = traffic.totals(direction);
  add_number(object, "messages", totals.messages);
  add_number(object, "frames", totals.frames);
  add_number(object, "bytes", totals.bytes);
  auto *rates = json_object_new_array();
  for (const unsigned int count : traffic.rates(direction, now_ms))
    json_object_array_add(rates, json_object_new_int64(count));
  json_object_object_add(object, "rates", rates);
  return object;
}

json_object *describe_records(const traffic_log &traffic, uint64_t last_seen) {
  auto *list = json_object_new_array();
  for (const auto &record : traffic.records()) {
    if (record.number <= last_seen)
      continue;
    auto *one = json_object_new_object();
    add_number(one, "number", record.number);
    add_number(one, "time", static_cast<uint64_t>(record.time_ms));
    add_number(one, "daemon", record.daemon);
    add_bool(one, "sent", record.direction == direction_t::sent);
    add_text(one, "kind", name_of(record.kind));
    add_number(one, "size", record.payload_bytes);
    add_number(one, "frames", record.frame_count);
    add_text(one, "hex", hexadecimal(record.beginning));
    json_object_array_add(list, one);
  }
  return list;
}

// ---- what the page commands ----

/// What is wrong with a command, in words for the person at the page.
class bad_command : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

json_object *member(json_object *object, const char *key, json_type type) {
  json_object *value = nullptr;
  if (!json_object_object_get_ex(object, key, &value) || !json_object_is_type(value, type))
    throw bad_command(std::string("the command has no usable \"") + key + "\"");
  return value;
}

std::string text_member(json_object *object, const char *key) {
  auto *value = member(object, key, json_type_string);
  return {json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value))};
}

bool bool_member(json_object *object, const char *key) {
  return json_object_get_boolean(member(object, key, json_type_boolean)) != 0;
}

int number_member(json_object *object, const char *key, int smallest, int largest) {
  const int64_t value = json_object_get_int64(member(object, key, json_type_int));
  if (value < smallest || value > largest)
    throw bad_command(std::string(key) + " has to be from " + std::to_string(smallest) + " to " +
                      std::to_string(largest));
  return static_cast<int>(value);
}

std::optional<unsigned int> target_member(json_object *object) {
  json_object *value = nullptr;
  if (!json_object_object_get_ex(object, "to", &value) || !value)
    return std::nullopt;
  return static_cast<unsigned int>(json_object_get_int64(member(object, "to", json_type_int)));
}

std::string done_to(const std::string &what, size_t count) {
  if (count == 0)
    throw bad_command("no such daemon is connected");
  return what + " " + std::to_string(count) + (count == 1 ? " daemon" : " daemons");
}

std::string set_switches(fault_service &service, json_object *command) {
  switches_t wanted;
  wanted.no_pongs = bool_member(command, "no_pongs");
  wanted.stop_reading = bool_member(command, "stop_reading");
  wanted.fragments = number_member(command, "fragments", 1, switches_t::most_fragments);
  wanted.delay_ms = number_member(command, "delay_ms", 0, switches_t::longest_delay_ms);
  service.set_switches(wanted);
  return "the switches are set";
}

std::string go_away(fault_service &service, json_object *command) {
  const int seconds = number_member(command, "seconds", 1, longest_away_s);
  service.go_away(std::chrono::seconds(seconds));
  return "away for " + std::to_string(seconds) + " s";
}

std::string come_back(fault_service &service) {
  service.come_back();
  return "back";
}

std::string carry_out(fault_service &service, json_object *command) {
  const std::string name = text_member(command, "cmd");
  if (name == "send")
    return done_to("sent to", service.send(target_member(command), text_member(command, "text")));
  if (name == "switches")
    return set_switches(service, command);
  if (name == "close")
    return done_to(
        "closed the connection of",
        service.close(target_member(command),
                      number_member(command, "code", smallest_close_code, largest_close_code)));
  if (name == "reset")
    return done_to("reset the connection of", service.reset(target_member(command)));
  if (name == "away")
    return go_away(service, command);
  if (name == "return")
    return come_back(service);
  throw bad_command("there is no command \"" + name + "\"");
}

std::string answer(bool ok, const std::string &text) {
  const auto object = own(json_object_new_object());
  add_text(object.get(), "type", "answer");
  add_bool(object.get(), "ok", ok);
  add_text(object.get(), "text", text);
  return text_of(object);
}

} // namespace

std::string describe(const fault_service &service, uint64_t last_seen) {
  const auto object = own(json_object_new_object());
  const int64_t now_ms = wall_clock_ms();
  const traffic_log &traffic = service.traffic();
  add_text(object.get(), "type", "update");
  add_text(object.get(), "url", service.url());
  add_number(object.get(), "now", static_cast<uint64_t>(now_ms));
  if (const auto away = service.away_for())
    add_number(object.get(), "away_ms", static_cast<uint64_t>(away->count()));
  json_object_object_add(object.get(), "daemons", describe_daemons(service));
  json_object_object_add(object.get(), "switches", describe_switches(service.switches()));
  json_object_object_add(object.get(), "received",
                         describe_side(traffic, direction_t::received, now_ms));
  json_object_object_add(object.get(), "sent", describe_side(traffic, direction_t::sent, now_ms));
  add_number(object.get(), "last_number", traffic.last_number());
  json_object_object_add(object.get(), "records", describe_records(traffic, last_seen));
  return text_of(object);
}

std::string carry_out_command(fault_service &service, std::string_view command) {
  const std::string text(command);
  const auto object = own(json_tokener_parse(text.c_str()));
  try {
    if (!json_object_is_type(object.get(), json_type_object))
      return answer(false, "a command is a JSON object");
    return answer(true, carry_out(service, object.get()));
  } catch (const bad_command &wrong) {
    return answer(false, wrong.what());
  }
}

} // namespace vemk
