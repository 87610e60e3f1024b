/// Records of several parts.
#ifndef VEMK_TESTS_SUPPORT_JOINED_H
#define VEMK_TESTS_SUPPORT_JOINED_H

#include <string>
#include <vector>

namespace vemk {

inline std::vector<std::string> joined(const std::vector<std::vector<std::string>> &parts) {
  std::vector<std::string> whole;
  for (const std::vector<std::string> &part : parts)
    whole.insert(whole.end(), part.begin(), part.end());
  return whole;
}

} // namespace vemk

#endif
