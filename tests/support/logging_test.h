/// The log as tests see it.
#ifndef VEMK_TESTS_SUPPORT_LOGGING_TEST_H
#define VEMK_TESTS_SUPPORT_LOGGING_TEST_H

#include <cstdint>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "log/log_module.h"

namespace vemk {

/// A whole line of a module.
inline std::string log_line(const std::string &module, const std::string &message) {
  return "|" + std::to_string(getpid()) + "|" + module + "> " + message;
}

/// The line of a buffer that could not grow.
inline std::string no_memory_line() {
  return log_line("buffer-info", "append:95 Can't alloc memory\n");
}

/// Begins with an empty log and these categories, and leaves none on.
class LoggingTest : public testing::Test {
protected:
  explicit LoggingTest(std::uint32_t categories) {
    fake_log::clear();
    g_log_level = categories;
  }

  ~LoggingTest() override { g_log_level = 0; }
};

} // namespace vemk

#endif
