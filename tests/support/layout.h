/// Where members lie in their record.
#ifndef VEMK_TESTS_SUPPORT_LAYOUT_H
#define VEMK_TESTS_SUPPORT_LAYOUT_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

namespace vemk {

template<typename record_t>
std::size_t offset_in(const record_t &record, const void *member) {
  return static_cast<std::size_t>(static_cast<const char *>(member) -
                                  reinterpret_cast<const char *>(&record));
}

/// Whether the members, given by their addresses, lie one behind the other.
template<typename... members_t>
bool lie_in_order(const members_t *...members) {
  const std::vector<const void *> places = {members...};
  return std::is_sorted(places.begin(), places.end(), std::less<const void *>());
}

} // namespace vemk

#endif
