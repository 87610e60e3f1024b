#include "fuzz/json_model.h"

#include <algorithm>
#include <cstdio>

namespace vemk::fuzz {

namespace {

std::string quoted(const std::string &text) {
  static const std::string special = "\b\n\r\t\f\"\\/";
  static const std::string letters = "bnrtf\"\\/";
  std::string result = "\"";
  for (const char byte : text) {
    const std::size_t at = special.find(byte);
    if (at != std::string::npos) {
      result += {'\\', letters[at]};
    } else if (static_cast<unsigned char>(byte) < ' ') {
      char code[8];
      snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(byte));
      result += code;
    } else {
      result += byte;
    }
  }
  return result + "\"";
}

} // namespace

void json_value::put(const std::string &key, const std::shared_ptr<json_value> &value) {
  if (!is_array()) {
    set_member(key, value);
    return;
  }
  if (next_slot < members.size()) {
    members[next_slot].second->leave();
    members[next_slot].second = value;
  } else {
    members.emplace_back("", value);
  }
  ++next_slot;
}

void json_value::add_child(const std::string &key, const std::shared_ptr<json_value> &value) {
  if (is_array())
    members.emplace_back("", value);
  else
    set_member(key, value);
}

void json_value::set_member(const std::string &key, const std::shared_ptr<json_value> &value) {
  const auto found = std::find_if(members.begin(), members.end(),
                                  [&key](const auto &member) { return member.first == key; });
  if (found == members.end()) {
    members.emplace_back(key, value);
    return;
  }
  found->second->leave();
  found->second = value;
}

void json_value::leave() {
  is_gone = true;
  for (const auto &member : members)
    member.second->leave();
}

std::string json_value::serialised() const {
  if (type == kind::text)
    return quoted(text);
  if (type == kind::number)
    return std::to_string(number);
  std::string result = is_array() ? "[" : "{";
  for (const auto &member : members) {
    result += result.size() == 1 ? " " : ", ";
    result += (is_array() ? "" : quoted(member.first) + ": ") + member.second->serialised();
  }
  return result + (is_array() ? " ]" : " }");
}

} // namespace vemk::fuzz
