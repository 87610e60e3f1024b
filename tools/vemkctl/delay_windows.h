/// The windows that the daemon draws its waits from.
#ifndef VEMKCTL_DELAY_WINDOWS_H
#define VEMKCTL_DELAY_WINDOWS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vemk {

/// Seconds; `high` is not included. The daemon reads a delay as a signed number of 32 bits: the
/// window of a negative delay lies around zero. The drawn number is signed too: one beyond 31 bits
/// counts as negative. With a number below 1 the daemon does not wait.
struct delay_window_t {
  std::int64_t low;
  std::int64_t high;
};

/// The windows of the first `count` attempts, if none succeeds.
std::vector<delay_window_t> delay_windows(std::uint32_t initial_delay, std::uint32_t max_delay,
                                          std::size_t count);

/// In the form "[1;3)", as the daemon logs it for a delay that is not negative.
std::string to_text(const delay_window_t &window);

} // namespace vemk

#endif
