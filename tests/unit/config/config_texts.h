/// The configuration record and its log line as texts.
#ifndef VEMK_TESTS_UNIT_CONFIG_CONFIG_TEXTS_H
#define VEMK_TESTS_UNIT_CONFIG_CONFIG_TEXTS_H

#include <string>

#include "config/websock_cfg.h"
#include "support/logging_test.h"

namespace vemk {

/// Host, port and path, "not valid" in front of those that are not.
inline std::string url_of(const websock_cfg_t &cfg) {
  return (cfg.url_valid ? "" : std::string("not valid ")) + cfg.host + " " +
         std::to_string(cfg.port) + " " + cfg.path;
}

constexpr char no_url[] = "not valid  0 ";

/// The other settings: "delays 5 300, level 9, location".
inline std::string settings_of(const websock_cfg_t &cfg) {
  return "delays " + std::to_string(cfg.initial_connection_delay) + " " +
         std::to_string(cfg.max_connection_delay) + ", level " + std::to_string(cfg.log_level) +
         (cfg.whole_messages ? ", whole messages" : "") + (cfg.event_pacing ? ", event" : "") +
         ", " + cfg.ap_location;
}

constexpr char no_settings[] = "delays 0 0, level 0, default-domain";

/// The line that refuses a URL.
inline std::string refusal(const std::string &scheme) {
  return log_line("websock-cfg", "Proto " + scheme + " is invalid\n");
}

} // namespace vemk

#endif
