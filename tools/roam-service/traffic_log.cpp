#include "traffic_log.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vemk {
namespace {

constexpr int64_t ms_per_s = 1000;
constexpr size_t longest_beginning = 1024;

size_t place_of(int64_t second) {
  return static_cast<size_t>(second) % traffic_log::seconds_counted;
}

} // namespace

summary_t summary_of(opcode_t kind, std::string_view payload, size_t frame_count) {
  return {kind, payload.size(), frame_count, std::string(payload.substr(0, longest_beginning))};
}

int64_t wall_clock_ms() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count();
}

void traffic_log::add(unsigned int daemon, direction_t direction, summary_t message) {
  const int64_t now_ms = wall_clock_ms();
  side_t &counted = sides[static_cast<size_t>(direction)];
  counted.totals.messages += is_data(message.kind) ? 1 : 0;
  counted.totals.frames += message.frame_count;
  counted.totals.bytes += message.payload_bytes;
  const int64_t second = now_ms / ms_per_s;
  const size_t place = place_of(second);
  if (counted.seconds[place] != second)
    counted.counts[place] = 0;
  counted.seconds[place] = second;
  counted.counts[place] += static_cast<unsigned int>(message.frame_count);

  last_records.push_back({++numbers_given, now_ms, daemon, direction, std::move(message)});
  if (last_records.size() > most_records)
    last_records.pop_front();
}

std::deque<traffic_record_t> traffic_log::records_after(uint64_t number) const {
  const auto later = [number](const traffic_record_t &record) { return record.number > number; };
  return {std::find_if(last_records.begin(), last_records.end(), later), last_records.end()};
}

traffic_log::rates_t traffic_log::rates(direction_t direction, int64_t now_ms) const {
  const side_t &counted = side(direction);
  rates_t result{};
  int64_t second = now_ms / ms_per_s;
  for (size_t index = seconds_counted; index > 0; --index, --second)
    if (counted.seconds[place_of(second)] == second)
      result[index - 1] = counted.counts[place_of(second)];
  return result;
}

} // namespace vemk
