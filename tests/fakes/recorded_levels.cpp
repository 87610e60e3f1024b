#include "fakes/recorded_levels.h"

#include "log/log_module.h"

extern "C" {

void __real__ZN4vemk13log_set_levelERNS_12log_module_tEj(vemk::log_module_t &module,
                                                         std::uint32_t level);

void __wrap__ZN4vemk13log_set_levelERNS_12log_module_tEj(vemk::log_module_t &module,
                                                         std::uint32_t level) {
  vemk::recorded_levels::levels.add(std::string(module.name) + " " + std::to_string(level));
  __real__ZN4vemk13log_set_levelERNS_12log_module_tEj(module, level);
}
}

namespace vemk::recorded_levels {

record_of<std::string> levels;

} // namespace vemk::recorded_levels
