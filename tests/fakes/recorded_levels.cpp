#include "fakes/recorded_levels.h"

#include "log/log_module.h"

namespace {

std::vector<std::string> recorded;

} // namespace

extern "C" {

void __real__ZN4vemk13log_set_levelERNS_12log_module_tEj(vemk::log_module_t &module,
                                                         std::uint32_t level);

void __wrap__ZN4vemk13log_set_levelERNS_12log_module_tEj(vemk::log_module_t &module,
                                                         std::uint32_t level) {
  recorded.push_back(std::string(module.name) + " " + std::to_string(level));
  __real__ZN4vemk13log_set_levelERNS_12log_module_tEj(module, level);
}
}

namespace vemk::recorded_levels {

std::vector<std::string> levels() {
  return recorded;
}

void clear() {
  recorded.clear();
}

} // namespace vemk::recorded_levels
