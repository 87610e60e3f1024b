#include "vemkctl/delay_windows.h"

#include <algorithm>

namespace vemk {

std::vector<delay_window_t> delay_windows(std::uint32_t initial_delay, std::uint32_t max_delay,
                                          std::size_t count) {
  std::vector<delay_window_t> windows;
  std::uint32_t delay = initial_delay;
  while (windows.size() < count) {
    // The daemon halves the delay as a signed number.
    const auto low = delay == 0 ? 1 : static_cast<std::int32_t>(delay) / 2;
    const std::uint32_t span = delay == 0 ? 2 : delay;
    windows.push_back({static_cast<std::uint32_t>(low), static_cast<std::uint32_t>(low) + span});
    delay = std::min(delay == 0 ? 2 : 2 * delay, max_delay);
  }
  return windows;
}

std::string to_text(const delay_window_t &window) {
  return "[" + std::to_string(window.low) + ";" + std::to_string(window.high) + ")";
}

} // namespace vemk
