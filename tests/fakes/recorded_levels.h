/// The masks that log modules are given, recorded in order and set as well.
#ifndef VEMK_TESTS_RECORDED_LEVELS_H
#define VEMK_TESTS_RECORDED_LEVELS_H

#include <string>

#include "fakes/fake_call.h"

namespace vemk::recorded_levels {

/// Each as the module's name and the mask in decimal, "websock-cfg 8".
extern record_of<std::string> levels;

} // namespace vemk::recorded_levels

#endif
