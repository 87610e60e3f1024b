// How a pending timer lies in memory.

#include <cstdint>

#include <gtest/gtest.h>

#include "support/layout.h"
#include "timers/timer_service.h"

namespace vemk {
namespace {

// The callback lies at 0, then the id and the expiry with 4 bytes each.
TEST(TimerLayoutTest, IsCallbackThenIdThenExpiry) {
  const timer_entry entry{nullptr, 0, 0};
  EXPECT_EQ(offset_in(entry, &entry.callback), 0u);
  EXPECT_EQ(offset_in(entry, &entry.id), sizeof entry.callback);
  EXPECT_EQ(offset_in(entry, &entry.expiry), sizeof entry.callback + 4);
  EXPECT_EQ(sizeof entry, sizeof entry.callback + 8);
}

// A list of three words, a timespec, the position of a walk and a number are all that it has.
TEST(TimerLayoutTest, ServiceIsTheListThenTheLastTime) {
  // Two words for the ends, one for the count; then the time, the position of a walk, and a number
  // of seconds.
  EXPECT_EQ(sizeof(timer_service::timer_list), 3 * sizeof(void *));
  struct layout_t {
    timer_service::timer_list timers;
    timespec last_now;
    void *next_to_fire;
    std::int32_t expected_wait;
  };
  EXPECT_EQ(sizeof(timer_service), sizeof(layout_t));
}

} // namespace
} // namespace vemk
