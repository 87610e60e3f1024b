#include "fuzz/script.h"

#include <algorithm>
#include <cstdlib>

namespace vemk::fuzz {

script_reader::script_reader(const std::uint8_t *data, std::size_t size)
    : input(data, data + size), next_start(0), position(0) {}

bool script_reader::next_line() {
  if (next_start == std::string::npos)
    return false;
  const std::size_t end = input.find('\n', next_start);
  line = input.substr(next_start, end == std::string::npos ? end : end - next_start);
  next_start = end == std::string::npos ? end : end + 1;
  position = 0;
  return true;
}

bool script_reader::has_word() {
  position = std::min(line.find_first_not_of(' ', position), line.size());
  return position < line.size();
}

std::string script_reader::word() {
  if (!has_word())
    return "";
  const std::size_t end = std::min(line.find(' ', position), line.size());
  const std::string found = line.substr(position, end - position);
  position = end;
  return found;
}

std::int64_t script_reader::number(std::int64_t lowest, std::int64_t highest) {
  const std::int64_t value = strtoll(word().c_str(), nullptr, 10);
  return std::clamp(value, lowest, highest);
}

std::string script_reader::rest() {
  if (position < line.size() && line[position] == ' ')
    ++position;
  std::string text;
  for (; position < line.size(); ++position) {
    const char escaped = position + 1 < line.size() ? line[position + 1] : ' ';
    const bool is_escape =
        line[position] == '\\' && (escaped == 'n' || escaped == '0' || escaped == '\\');
    if (is_escape)
      ++position;
    if (is_escape && escaped != '\\')
      text += escaped == 'n' ? '\n' : '\0';
    else
      text += line[position];
  }
  return text;
}

std::string script_reader::following_lines() const {
  return next_start == std::string::npos ? "" : input.substr(next_start);
}

std::string repeated(const std::string &text, std::int64_t times, std::size_t largest) {
  std::string all;
  for (std::int64_t i = 0; i < times && !text.empty() && all.size() + text.size() <= largest; ++i)
    all += text;
  return all;
}

} // namespace vemk::fuzz
