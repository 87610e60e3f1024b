/// From what ranges the daemon draws its waits before it connects.
#ifndef VEMKCTL_DELAY_WINDOWS_H
#define VEMKCTL_DELAY_WINDOWS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vemk {

/// Seconds; `high` is not drawn any more. The daemon takes a delay for a signed number of 32 bits:
/// a negative one draws around zero. It takes what it drew for one too: with a number below 1 it
/// does not wait, and one beyond 31 bits counts as negative.
struct delay_window_t {
  std::int64_t low;
  std::int64_t high;
};

/// The windows of the first `count` attempts, none of which succeeds.
std::vector<delay_window_t> delay_windows(std::uint32_t initial_delay, std::uint32_t max_delay,
                                          std::size_t count);

/// In the form "[1;3)", as the daemon logs it of a delay that is not negative.
std::string to_text(const delay_window_t &window);

} // namespace vemk

#endif
