#include "vemkctl/delay_windows.h"

#include <algorithm>
#include <cstdlib>

namespace vemk {

std::vector<delay_window_t> delay_windows(std::uint32_t initial_delay, std::uint32_t max_delay,
                                          std::size_t count) {
  std::vector<delay_window_t> windows;
  std::uint32_t delay = initial_delay;
  while (windows.size() < count) {
    // rand() % -5 gives 0 to 4, as rand() % 5 does.
    const std::int64_t number = delay == 0 ? 2 : static_cast<std::int32_t>(delay);
    const std::int64_t low = number / 2;
    windows.push_back({low, low + std::abs(number)});
    delay = std::min(delay == 0 ? 2 : 2 * delay, max_delay);
  }
  return windows;
}

std::string to_text(const delay_window_t &window) {
  return "[" + std::to_string(window.low) + ";" + std::to_string(window.high) + ")";
}

} // namespace vemk
