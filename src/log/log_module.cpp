#include "log/log_module.h"

#include <cstdio>
#include <unistd.h>

#include "zandor_log.h"

namespace vemk {

std::uint32_t g_log_level = 0;
std::mutex g_log_mutex;

namespace {

__attribute__((format(printf, 3, 0))) void print_if_enabled(const log_module_t &module,
                                                            std::uint32_t category,
                                                            const char *format, va_list arguments) {
  if (log_is_enabled(module, category))
    log_vprint(module, format, arguments);
}

} // namespace

void log_module_init(log_module_t &module, const char *name, std::uint32_t level) noexcept {
  module.name = name;
  log_set_level(module, level);
  setbuf(stdout, nullptr);
}

void log_set_level(log_module_t &module, std::uint32_t level) noexcept {
  module.level.store(level, std::memory_order_relaxed);
}

bool log_is_enabled(const log_module_t &module, std::uint32_t category) noexcept {
  return (module.level.load(std::memory_order_relaxed) & category) != 0;
}

log_module_setup::log_module_setup(log_module_t &module, const char *name) noexcept {
  log_module_init(module, name, 0);
}

void log_vprint(const log_module_t &module, const char *format, va_list arguments) {
  const std::lock_guard<std::mutex> line(g_log_mutex);
  zandor_log_msg_timed("|%d|%s> ", static_cast<int>(getpid()), module.name);
  vzandor_log_msg(format, arguments);
}

void log_error(const log_module_t &module, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print_if_enabled(module, log_category_error, format, arguments);
  va_end(arguments);
}

void log_warning(const log_module_t &module, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print_if_enabled(module, log_category_warning, format, arguments);
  va_end(arguments);
}

void log_info(const log_module_t &module, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print_if_enabled(module, log_category_info, format, arguments);
  va_end(arguments);
}

void log_debug(const log_module_t &module, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  print_if_enabled(module, log_category_debug, format, arguments);
  va_end(arguments);
}

} // namespace vemk
