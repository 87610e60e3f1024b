/// The judge of every fuzz target: what the code did against what its model says.
#ifndef VEMK_TESTS_FUZZ_EXPECT_H
#define VEMK_TESTS_FUZZ_EXPECT_H

#include <string>
#include <type_traits>
#include <vector>

namespace vemk::fuzz {

/// Each of these ends the process unless both are equal, so that the fuzzer keeps the input. What
/// differs, and how, goes to standard error.
void expect_equal(const char *what, const std::string &expected, const std::string &actual);
void expect_equal(const char *what, const std::vector<std::string> &expected,
                  const std::vector<std::string> &actual);

template<typename number, typename = std::enable_if_t<std::is_arithmetic_v<number>>>
void expect_equal(const char *what, number expected, number actual) {
  if (expected != actual)
    expect_equal(what, std::to_string(expected), std::to_string(actual));
}

} // namespace vemk::fuzz

#endif
