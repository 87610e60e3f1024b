#include "config/number.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace vemk {

std::uint32_t unsigned_number(const char *text, int base) {
  constexpr long long largest = std::numeric_limits<std::uint32_t>::max();
  const long long value = strtoll(text, nullptr, base);
  if (value > largest || value < -largest)
    return std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(value);
}

std::int32_t signed_number(const char *text) {
  constexpr long long smallest = std::numeric_limits<std::int32_t>::min();
  constexpr long long largest = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::clamp(strtoll(text, nullptr, 10), smallest, largest));
}

} // namespace vemk
