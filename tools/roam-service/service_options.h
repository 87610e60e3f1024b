#ifndef VEMK_ROAM_SERVICE_SERVICE_OPTIONS_H
#define VEMK_ROAM_SERVICE_SERVICE_OPTIONS_H

#include "switches.h"

#include <chrono>
#include <optional>
#include <string>

namespace vemk {

/// What daemons ask for.
constexpr const char *daemon_subprotocol = "websock-roaming";
/// How long an ending service waits for its daemons to take the close.
constexpr std::chrono::seconds leave_patience{1};

/// What the command line of roam-service says.
struct service_options_t {
  std::string bind_address = "127.0.0.1";
  int port = 8080; // 0: one that is free
  std::string path = "/roam";
  bool echo = false;
  bool console = false;
  switches_t switches;
  incident_t incident = incident_t::none;
  int close_code = 0;
  int away_s = 0;
  int after_s = 5; // from connecting until the incident

  /// Whether a server that behaves as it should is all that is asked for.
  bool is_plain() const {
    return !console && incident == incident_t::none && switches == switches_t{};
  }
};

/// Returns the options, or nothing after a usage error or a help text was printed; `exit_status` is
/// then the status to end with.
std::optional<service_options_t> parse_service_options(int argc, char **argv, int &exit_status);

} // namespace vemk

#endif
