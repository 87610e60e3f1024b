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

inline bool lie_in_order(const std::vector<const void *> &members) {
  return std::is_sorted(members.begin(), members.end(), std::less<const void *>());
}

} // namespace vemk

#endif
