#ifndef VEMK_ROAM_SERVICE_SERVICE_OPTIONS_H
#define VEMK_ROAM_SERVICE_SERVICE_OPTIONS_H

#include <chrono>
#include <optional>
#include <string>

namespace vemk {

/// How the service misbehaves towards all its daemons, those that are connected and those to come.
struct switches_t {
  static constexpr int most_fragments = 1000;
  static constexpr int longest_delay_ms = 600'000;

  bool no_pongs = false;     // pings are seen, but not answered
  bool stop_reading = false; // nothing is read of what a daemon sends
  int fragments = 1;         // frames that each message is sent in
  int delay_ms = 0;          // what each message and pong is held back

  std::chrono::milliseconds delay() const { return std::chrono::milliseconds(delay_ms); }
};

constexpr int smallest_close_code = 1000;
constexpr int largest_close_code = 4999;
constexpr int longest_away_s = 86'400;

/// What the command line of roam-service says.
struct service_options_t {
  std::string bind_address = "127.0.0.1";
  int port = 8080; // 0: one that is free
  std::string path = "/roam";
  bool echo = false;
  bool console = false;
  switches_t switches;

  // What befalls each daemon after it connected: one of three, or nothing.
  int close_code = 0;
  bool reset = false;
  int away_s = 0;
  int after_s = 5;
};

/// Returns the options, or nothing after a usage error or a help text was printed; `exit_status` is
/// then the status to end with.
std::optional<service_options_t> parse_service_options(int argc, char **argv, int &exit_status);

} // namespace vemk

#endif
