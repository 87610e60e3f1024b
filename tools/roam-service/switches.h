#ifndef VEMK_ROAM_SERVICE_SWITCHES_H
#define VEMK_ROAM_SERVICE_SWITCHES_H

#include <chrono>
#include <cstddef>

namespace vemk {

/// How the service misbehaves towards all its daemons, those that are connected and those to come.
struct switches_t {
  static constexpr int most_fragments = 1000;
  static constexpr int longest_delay_ms = 600'000;

  bool no_pongs = false;     // pings are seen, but not answered
  bool stop_reading = false; // nothing is read of what a daemon sends
  int fragments = 1;         // frames that each message is sent in
  int delay_ms = 0;          // what each message and pong is held back

  bool operator==(const switches_t &other) const {
    return no_pongs == other.no_pongs && stop_reading == other.stop_reading &&
           fragments == other.fragments && delay_ms == other.delay_ms;
  }

  std::chrono::milliseconds delay() const { return std::chrono::milliseconds(delay_ms); }
};

/// What befalls each daemon some time after it connected.
enum class incident_t { none, close, reset, away };

constexpr int smallest_close_code = 1000;
constexpr int largest_close_code = 4999;
constexpr int longest_away_s = 86'400;

} // namespace vemk

#endif
