/// Log modules and emitters.
///
/// Every source file that logs has one static log_module_t with a mask of message categories. An
/// emitter writes a message when its category bit is set in the module's mask. The line reads:
/// timestamp, "|PID|MODULE> ", message. Formats are printf's and include the line end.
///
/// log_warning() and log_vprint() are by design without a use.
///
/// Threading: any thread may call the emitters and log_set_level; one process-wide mutex keeps the
///   parts of a line together. log_module_init is for static initialisers.
/// Errors: a mutex that cannot be locked throws std::system_error; writing reports nothing.
#ifndef VEMK_LOG_LOG_MODULE_H
#define VEMK_LOG_LOG_MODULE_H

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <mutex>

namespace vemk {

/// The categories, as bits of a mask.
constexpr std::uint32_t log_category_error = 0x01;
constexpr std::uint32_t log_category_warning = 0x02;
constexpr std::uint32_t log_category_info = 0x04;
constexpr std::uint32_t log_category_debug = 0x08;

struct log_module_t {
  const char *name;
  /// Set on one thread while another one logs, hence atomic. It does not order other data.
  std::atomic<std::uint32_t> level;
};

/// The mask of the configuration; 0 until it is read. Written before the worker threads exist. The
/// owner of a module decides when the mask is copied into the module's level.
extern std::uint32_t g_log_level;

/// Held during the two platform calls that write one line.
extern std::mutex g_log_mutex;

/// Names a module, sets its mask and makes standard output unbuffered. `name` is not copied.
void log_module_init(log_module_t &module, const char *name, std::uint32_t level) noexcept;

/// A source file's static initialiser: registers its module, silent at first.
struct log_module_setup {
  log_module_setup(log_module_t &module, const char *name) noexcept;
};

void log_set_level(log_module_t &module, std::uint32_t level) noexcept;

/// Whether the module writes messages of this category.
bool log_is_enabled(const log_module_t &module, std::uint32_t category) noexcept;

void log_error(const log_module_t &module, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void log_warning(const log_module_t &module, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void log_info(const log_module_t &module, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void log_debug(const log_module_t &module, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/// Writes regardless of the module's mask.
void log_vprint(const log_module_t &module, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

} // namespace vemk

#endif
