/// The first four lines are service, cmd, ap-mac and version of a root message; each further line
/// adds something to it:
///   s KEY TEXT, n KEY NUMBER   a text or a number
///   a KEY, o KEY               an array or an object, which the next lines fill
///   g NUMBER                   the next lines fill the container made as the NUMBER-th again
/// Keys and texts are escaped as script_reader::rest() does. What the JSON library reads in the
/// writer's text is held against json_model, and the text against the library's own.

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/expect.h"
#include "fuzz/json_model.h"
#include "fuzz/script.h"
#include "json/json_writer.h"

namespace vemk::fuzz {

namespace {

// The reading side of the library stops at 32.
constexpr int deepest = 20;

std::shared_ptr<json_value> value_of(json_type type) {
  auto value = std::make_shared<json_value>();
  value->type = type;
  return value;
}

std::shared_ptr<json_value> text_value(const std::string &text) {
  auto value = value_of(json_type_string);
  value->text = text;
  return value;
}

std::shared_ptr<json_value> number_value(std::int32_t number) {
  auto value = value_of(json_type_int);
  value->number = number;
  return value;
}

/// The text up to its first zero byte, which is where the writer's arguments end.
std::string zero_terminated(const std::string &text) {
  return text.c_str();
}

/// A root writer, the children made of it, and the model of each.
class writing {
public:
  explicit writing(script_reader &script) {
    const std::string service = next_text(script);
    const std::string cmd = next_text(script);
    const std::string ap_mac = next_text(script);
    const std::string version = next_text(script);
    containers.push_back({std::make_unique<json_writer>(service.c_str(), cmd.c_str(),
                                                        ap_mac.c_str(), version.c_str()),
                          value_of(json_type_object), 1});
    const std::pair<const char *, std::string> members[] = {
        {"version", version}, {"service", service}, {"cmd", cmd}, {"ap-mac", ap_mac}};
    for (const auto &[key, text] : members) {
      if (!text.empty())
        containers.front().model->put(key, text_value(text));
    }
  }

  void step(script_reader &script) {
    const std::string action = script.word();
    if (action == "g")
      current = static_cast<std::size_t>(
          script.number(0, static_cast<std::int64_t>(containers.size()) - 1));
    if (containers[current].model->is_gone)
      return;
    if (action == "s")
      add_text(script);
    if (action == "n")
      add_number(script);
    if (action == "a" || action == "o")
      add_child(script, action == "a");
    containers.front().writer->to_string();
  }

  void read_back() {
    const container_t &root = containers.front();
    const std::string text = root.writer->to_string();
    const std::unique_ptr<json_object, decltype(&json_object_put)> value(
        json_tokener_parse(text.c_str()), &json_object_put);
    root.model->expect_same(value.get());
    expect_equal("the text", json_object_to_json_string(value.get()), text);
  }

private:
  struct container_t {
    std::unique_ptr<json_writer> writer;
    std::shared_ptr<json_value> model;
    int depth;
  };

  static std::string next_text(script_reader &script) {
    return script.next_line() ? zero_terminated(script.rest()) : std::string();
  }

  void add_text(script_reader &script) {
    const std::string key = zero_terminated(script.word());
    const std::string text = zero_terminated(script.rest());
    containers[current].writer->add_string(key.c_str(), text.c_str());
    containers[current].model->put(key, text_value(text));
  }

  void add_number(script_reader &script) {
    const std::string key = zero_terminated(script.word());
    const auto number = static_cast<std::int32_t>(script.number(
        std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
    containers[current].writer->add_int(key.c_str(), number);
    containers[current].model->put(key, number_value(number));
  }

  void add_child(script_reader &script, bool as_array) {
    const std::string key = zero_terminated(script.word());
    const container_t &parent = containers[current];
    if (parent.depth == deepest)
      return;
    auto child = std::make_unique<json_writer>(as_array, *parent.writer, key.c_str());
    auto model = value_of(as_array ? json_type_array : json_type_object);
    parent.model->add_child(key, model);
    containers.push_back({std::move(child), std::move(model), parent.depth + 1});
    current = containers.size() - 1;
  }

  std::vector<container_t> containers;
  std::size_t current = 0;
};

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  vemk::fuzz::script_reader script(data, size);
  vemk::fuzz::writing message(script);
  while (script.next_line())
    message.step(script);
  message.read_back();
  return 0;
}
