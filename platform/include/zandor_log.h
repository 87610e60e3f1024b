/// The platform's log library, as the daemon uses it: a destination with rotation and timestamps.
///
/// One line is written by two calls, zandor_log_msg_timed for its beginning and vzandor_log_msg for
/// the rest. The caller keeps the two together; the daemon holds one process-wide mutex over them.
///
/// Threading: init_zandor_logrotate once, before anything else and before a second thread exists.
/// Errors: none of the calls reports any; a line that cannot be written is lost.
#ifndef VEMK_PLATFORM_ZANDOR_LOG_H
#define VEMK_PLATFORM_ZANDOR_LOG_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Starts logging under the program's name, which the library copies.
void init_zandor_logrotate(const char *program);

/// Begins a line: a timestamp, then the formatted text.
void zandor_log_msg_timed(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Appends the formatted text, which includes the line end, to the line begun last.
void vzandor_log_msg(const char *format, va_list arguments) __attribute__((format(printf, 1, 0)));

#ifdef __cplusplus
}
#endif

#endif
