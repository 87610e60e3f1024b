/// From what ranges the daemon draws its waits before it connects.
#ifndef VEMKCTL_DELAY_WINDOWS_H
#define VEMKCTL_DELAY_WINDOWS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vemk {

/// Seconds; `high` is not drawn any more. Delays beyond 31 bits wrap round, as in the daemon.
struct delay_window_t {
  std::uint32_t low;
  std::uint32_t high;
};

/// The windows of the first `count` attempts, none of which succeeds.
std::vector<delay_window_t> delay_windows(std::uint32_t initial_delay, std::uint32_t max_delay,
                                          std::size_t count);

/// In the form "[1;3)", as the daemon logs it.
std::string to_text(const delay_window_t &window);

} // namespace vemk

#endif
