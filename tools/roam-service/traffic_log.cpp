#include "traffic_log.h"

#include <utility>

namespace vemk {
namespace {

constexpr int64_t ms_per_s = 1000;

size_t place_of(int64_t second) {
  return static_cast<size_t>(second) % traffic_log::seconds_counted;
}

} // namespace

void traffic_log::add(traffic_record_t record) {
  side_t &counted = record.direction == direction_t::received ? received : sent;
  const bool is_data = record.kind == opcode_t::text || record.kind == opcode_t::binary;
  counted.totals.messages += is_data ? 1 : 0;
  counted.totals.frames += record.frame_count;
  counted.totals.bytes += record.payload_bytes;
  const int64_t second = record.time_ms / ms_per_s;
  const size_t place = place_of(second);
  if (counted.seconds[place] != second)
    counted.counts[place] = 0;
  counted.seconds[place] = second;
  counted.counts[place] += static_cast<unsigned int>(record.frame_count);

  record.number = ++numbers_given;
  last_records.push_back(std::move(record));
  if (last_records.size() > most_records)
    last_records.pop_front();
}

const traffic_totals_t &traffic_log::totals(direction_t direction) const {
  return side(direction).totals;
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

const traffic_log::side_t &traffic_log::side(direction_t direction) const {
  return direction == direction_t::received ? received : sent;
}

} // namespace vemk
