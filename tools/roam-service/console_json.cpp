#include "console_json.h"

#include "roam_service.h"

#include <initializer_list>
#include <json-c/json.h>
#include <map>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

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

template<typename number_t, typename = std::enable_if_t<std::is_integral_v<number_t>>>
json_object *to_json(number_t number) {
  return json_object_new_int64(static_cast<int64_t>(number));
}

json_object *to_json(bool yes) {
  return json_object_new_boolean(yes);
}

json_object *to_json(const char *text) {
  return json_object_new_string(text);
}

json_object *to_json(const std::string &text) {
  return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

json_object *make_object(std::initializer_list<std::pair<const char *, json_object *>> members) {
  auto *object = json_object_new_object();
  for (const auto &[key, made] : members)
    json_object_object_add(object, key, made);
  return object;
}

template<typename range_t, typename function_t>
json_object *make_array(const range_t &range, const function_t &describe_one) {
  auto *array = json_object_new_array();
  for (const auto &one : range)
    json_object_array_add(array, describe_one(one));
  return array;
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
  static const std::map<opcode_t, const char *> names = {{opcode_t::text, "text"},
                                                         {opcode_t::binary, "binary"},
                                                         {opcode_t::close, "close"},
                                                         {opcode_t::ping, "ping"},
                                                         {opcode_t::pong, "pong"}};
  return names.at(kind);
}

json_object *describe_daemon(const roam_service::daemon_map::value_type &numbered) {
  const auto &[number, daemon] = numbered;
  auto *object = make_object({{"id", to_json(number)},
                              {"address", to_json(daemon.link->peer())},
                              {"since", to_json(daemon.since_ms)},
                              {"pings", to_json(daemon.pings)},
                              {"pings_unanswered", to_json(daemon.pings_unanswered)},
                              {"open", to_json(daemon.link->open())}});
  if (daemon.last_ping_ms)
    json_object_object_add(object, "last_ping", to_json(*daemon.last_ping_ms));
  return object;
}

json_object *describe_switches(const switches_t &switches) {
  return make_object({{"no_pongs", to_json(switches.no_pongs)},
                      {"stop_reading", to_json(switches.stop_reading)},
                      {"fragments", to_json(switches.fragments)},
                      {"delay_ms", to_json(switches.delay_ms)}});
}

json_object *describe_side(const traffic_log &traffic, direction_t direction, int64_t now_ms) {
  const auto &totals = traffic.totals(direction);
  return make_object(
      {{"messages", to_json(totals.messages)},
       {"frames", to_json(totals.frames)},
       {"bytes", to_json(totals.bytes)},
       {"rates", make_array(traffic.rates(direction, now_ms), to_json<unsigned int>)}});
}

json_object *describe_record(const traffic_record_t &record) {
  return make_object({{"number", to_json(record.number)},
                      {"time", to_json(record.time_ms)},
                      {"daemon", to_json(record.daemon)},
                      {"sent", to_json(record.direction == direction_t::sent)},
                      {"kind", to_json(name_of(record.message.kind))},
                      {"size", to_json(record.message.payload_bytes)},
                      {"frames", to_json(record.message.frame_count)},
                      {"hex", to_json(hexadecimal(record.message.beginning))}});
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
  json_object *value = member(object, key, json_type_string);
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

std::string set_switches(roam_service &service, json_object *command) {
  switches_t wanted;
  wanted.no_pongs = bool_member(command, "no_pongs");
  wanted.stop_reading = bool_member(command, "stop_reading");
  wanted.fragments = number_member(command, "fragments", 1, switches_t::most_fragments);
  wanted.delay_ms = number_member(command, "delay_ms", 0, switches_t::longest_delay_ms);
  service.set_switches(wanted);
  return "the switches are set";
}

std::string go_away(roam_service &service, json_object *command) {
  const int seconds = number_member(command, "seconds", 1, longest_away_s);
  service.go_away(std::chrono::seconds(seconds));
  return "away for " + std::to_string(seconds) + " s";
}

std::string carry_out(roam_service &service, json_object *command) {
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
  if (name == "return") {
    service.come_back();
    return "back";
  }
  throw bad_command("there is no command \"" + name + "\"");
}

std::string answer(bool ok, const std::string &text) {
  return text_of(own(
      make_object({{"type", to_json("answer")}, {"ok", to_json(ok)}, {"text", to_json(text)}})));
}

} // namespace

std::string describe(const roam_service &service, uint64_t last_seen) {
  const int64_t now_ms = wall_clock_ms();
  const traffic_log &traffic = service.traffic();
  const auto object = own(
      make_object({{"type", to_json("update")},
                   {"url", to_json(service.url())},
                   {"now", to_json(now_ms)},
                   {"daemons", make_array(service.connected(), describe_daemon)},
                   {"switches", describe_switches(service.switches())},
                   {"received", describe_side(traffic, direction_t::received, now_ms)},
                   {"sent", describe_side(traffic, direction_t::sent, now_ms)},
                   {"last_number", to_json(traffic.last_number())},
                   {"records", make_array(traffic.records_after(last_seen), describe_record)}}));
  if (const auto away = service.away_for())
    json_object_object_add(object.get(), "away_ms", to_json(away->count()));
  return text_of(object);
}

std::string carry_out_command(roam_service &service, const std::string &command) {
  const auto object = own(json_tokener_parse(command.c_str()));
  try {
    if (!json_object_is_type(object.get(), json_type_object))
      return answer(false, "a command is a JSON object");
    return answer(true, carry_out(service, object.get()));
  } catch (const bad_command &wrong) {
    return answer(false, wrong.what());
  }
}

} // namespace vemk
