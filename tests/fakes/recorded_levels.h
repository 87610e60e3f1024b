/// The masks that log modules are given, recorded in order and set as well.
#ifndef VEMK_TESTS_RECORDED_LEVELS_H
#define VEMK_TESTS_RECORDED_LEVELS_H

#include <string>
#include <vector>

namespace vemk::recorded_levels {

/// Each as the module's name and the mask in decimal, "websock-cfg 8", since the last clear().
std::vector<std::string> levels();

void clear();

} // namespace vemk::recorded_levels

#endif
