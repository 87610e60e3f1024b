#ifndef VEMK_ROAM_SERVICE_TRAFFIC_LOG_H
#define VEMK_ROAM_SERVICE_TRAFFIC_LOG_H

#include "frames.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace vemk {

enum class direction_t { received, sent };

/// What is kept of a message for people to see.
struct summary_t {
  opcode_t kind = opcode_t::text;
  size_t payload_bytes = 0;
  size_t frame_count = 0;
  std::string beginning; // of the payload, at most 1024 bytes
};

summary_t summary_of(opcode_t kind, std::string_view payload, size_t frame_count);

/// A message that passed, control messages included.
struct traffic_record_t {
  uint64_t number = 0; // counts up from 1
  int64_t time_ms = 0; // since the epoch
  unsigned int daemon = 0;
  direction_t direction = direction_t::received;
  summary_t message;
};

/// The wall clock, in milliseconds since the epoch.
int64_t wall_clock_ms();

/// What passed so far in one direction.
struct traffic_totals_t {
  uint64_t messages = 0; // without control messages
  uint64_t frames = 0;   // with control frames
  uint64_t bytes = 0;    // of payload
};

/// Remembers the last messages, the totals, and the frames of each of the last seconds.
///
/// Threading: none of its own.
class traffic_log {
public:
  static constexpr size_t most_records = 500;
  static constexpr size_t seconds_counted = 60;
  using rates_t = std::array<unsigned int, seconds_counted>;

  /// Adds a message that passed right now.
  void add(unsigned int daemon, direction_t direction, summary_t message);

  /// Of the last messages, those after the one with this number; 0 for all.
  std::deque<traffic_record_t> records_after(uint64_t number) const;
  uint64_t last_number() const { return numbers_given; }
  const traffic_totals_t &totals(direction_t direction) const { return side(direction).totals; }

  /// Frames a second, the oldest first; the last second is the one of `now_ms`, not over yet.
  rates_t rates(direction_t direction, int64_t now_ms) const;

private:
  struct side_t {
    traffic_totals_t totals;
    rates_t counts{};
    std::array<int64_t, seconds_counted> seconds{}; // which second each count is of
  };

  const side_t &side(direction_t direction) const { return sides[static_cast<size_t>(direction)]; }

  std::deque<traffic_record_t> last_records;
  uint64_t numbers_given = 0;
  std::array<side_t, 2> sides;
};

} // namespace vemk

#endif
