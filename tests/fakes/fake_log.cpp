#include "fakes/fake_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "zandor_log.h"

namespace {

std::mutex record_lock;
std::string open_line;

using guard = vemk::fake_call_guard<std::mutex>;

__attribute__((format(printf, 1, 0))) std::string formatted(const char *format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int size = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(size) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, arguments);
  text.resize(static_cast<std::size_t>(size));
  return text;
}

} // namespace

extern "C" {

void init_zandor_logrotate(const char *program) {
  vemk::fake_log::programs.add(program);
}

void zandor_log_msg_timed(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const guard locked(record_lock);
  open_line = formatted(format, arguments);
  va_end(arguments);
}

void vzandor_log_msg(const char *format, va_list arguments) {
  const guard locked(record_lock);
  vemk::fake_log::lines.add(open_line + formatted(format, arguments));
  open_line.clear();
}
}

namespace vemk::fake_log {

record_of<std::string> lines;
record_of<std::string> programs;

std::vector<std::string> messages(const std::string &module) {
  std::vector<std::string> found;
  const std::string marker = "|" + module + "> ";
  for (const std::string &line : lines()) {
    const std::size_t at = line.find(marker);
    if (at != std::string::npos)
      found.push_back(line.substr(at + marker.size()));
  }
  return found;
}

void clear() {
  const guard locked(record_lock);
  lines.clear();
  programs.clear();
  open_line.clear();
}

} // namespace vemk::fake_log
