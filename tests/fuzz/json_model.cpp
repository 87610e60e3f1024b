#include "fuzz/json_model.h"

#include <algorithm>

#include "fuzz/expect.h"

namespace vemk::fuzz {

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

void json_value::expect_same(json_object *actual) const {
  expect_equal("a type", json_type_to_name(type), json_type_to_name(json_object_get_type(actual)));
  if (type == json_type_string)
    expect_equal("a text", text, json_object_get_string(actual));
  if (type == json_type_int)
    expect_equal("a number", number, json_object_get_int(actual));

  std::vector<std::string> keys;
  std::vector<json_object *> values;
  for (std::size_t i = 0; is_array() && i < json_object_array_length(actual); ++i) {
    keys.emplace_back();
    values.push_back(json_object_array_get_idx(actual, i));
  }
  if (type == json_type_object) {
    json_object_object_foreach(actual, key, value) {
      keys.emplace_back(key);
      values.push_back(value);
    }
  }
  expect_equal("the members", members.size(), values.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    expect_equal("a key", members[i].first, keys[i]);
    members[i].second->expect_same(values[i]);
  }
}

} // namespace vemk::fuzz
