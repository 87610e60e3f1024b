// The workstation's stand-in for the platform's log library.
//
// Lines go to standard error, or to the rotating file that the environment variable ZANDOR_LOG_FILE
// names. Text that is formatted here never passes through another formatter: braces and percent
// signs of a message come out as they are.
#include "zandor_log.h"
#include "zandor_log/line_sink.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <new>
#include <spdlog/logger.h>
#include <string>
#include <unistd.h>

namespace {

// Never destroyed: exit() on one thread must not take the log from under another one.
std::atomic<spdlog::logger *> g_logger{nullptr};

// The line begun on this thread. Without a destructor, so that it outlives the thread's other
// objects, whose destructors may still log.
struct begun_line_t {
  bool begun;
  spdlog::log_clock::time_point time;
  char *text;
};
// NOLINTNEXTLINE(cert-err58-cpp): a default time point throws nothing
thread_local begun_line_t t_line;

spdlog::logger *make_logger(const char *program) {
  const char *file_path = std::getenv("ZANDOR_LOG_FILE");
  auto sink = std::make_shared<vemk::line_sink>(program, file_path ? file_path : "");
  auto made = std::make_unique<spdlog::logger>(program, std::move(sink));
  // The built-in handler would report errors on standard error that must be lost silently.
  made->set_error_handler([](const std::string &) {});
  spdlog::logger *existing = nullptr;
  return g_logger.compare_exchange_strong(existing, made.get()) ? made.release() : existing;
}

spdlog::logger &logger() {
  spdlog::logger *existing = g_logger.load();
  return existing ? *existing : *make_logger(program_invocation_short_name);
}

// Returns a heap block that the caller frees, or throws std::bad_alloc.
__attribute__((format(printf, 1, 0))) char *format_text(const char *format, va_list arguments) {
  char *text = nullptr;
  if (vasprintf(&text, format, arguments) < 0)
    throw std::bad_alloc();
  return text;
}

void write_line(spdlog::log_clock::time_point time, const std::string &text) {
  logger().log(time, spdlog::source_loc{}, spdlog::level::info, spdlog::string_view_t(text));
}

// Takes the line begun on this thread, so that nothing of it is left after any error.
std::string take_begun_text() {
  const std::unique_ptr<char, decltype(&std::free)> text(t_line.text, &std::free);
  t_line.begun = false;
  t_line.text = nullptr;
  return text ? text.get() : "";
}

// A socket that became descriptor 2 would otherwise receive the log.
void occupy_standard_descriptors() {
  for (int descriptor = 0; descriptor <= STDERR_FILENO; descriptor++)
    if (fcntl(descriptor, F_GETFD) < 0 && errno == EBADF)
      (void)open("/dev/null", O_RDWR);
}

void ignore_broken_pipes() {
  struct sigaction current {};
  if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
    (void)std::signal(SIGPIPE, SIG_IGN);
}

} // namespace

void init_zandor_logrotate(const char *program) {
  occupy_standard_descriptors();
  ignore_broken_pipes();
  try {
    if (!g_logger.load())
      make_logger(program);
  } catch (...) {
    // The next line tries again, under the system's name of the program.
  }
}

void zandor_log_msg_timed(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  try {
    if (t_line.begun)
      write_line(t_line.time, take_begun_text());
    t_line.time = spdlog::log_clock::now();
    t_line.text = format_text(format, arguments);
    t_line.begun = true;
  } catch (...) {
    // Out of memory: the line is written without its beginning.
  }
  va_end(arguments);
}

void vzandor_log_msg(const char *format, va_list arguments) {
  try {
    const auto time = t_line.begun ? t_line.time : spdlog::log_clock::now();
    std::string line = take_begun_text();
    const std::unique_ptr<char, decltype(&std::free)> text(format_text(format, arguments),
                                                           &std::free);
    write_line(time, line += text.get());
  } catch (...) {
    // Out of memory: this line is lost.
  }
}
