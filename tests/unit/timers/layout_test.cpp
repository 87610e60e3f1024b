// How a pending timer lies in memory.

#include <cstddef>
#include <cstdint>

#include <gtest/gtest.h>

#include "timers/timer_service.h"

namespace vemk {
namespace {

TEST(TimerLayoutTest, IsCallbackThenIdThenExpiry) {
  const timer_entry entry{nullptr, 0, 0};
  const auto offset_of = [&](const void *member) {
    return static_cast<std::size_t>(static_cast<const char *>(member) -
                                    reinterpret_cast<const char *>(&entry));
  };
  EXPECT_EQ(offset_of(&entry.callback), 0u);
  EXPECT_EQ(offset_of(&entry.id), sizeof entry.callback);
  EXPECT_EQ(offset_of(&entry.expiry), sizeof entry.callback + 4);
  EXPECT_EQ(sizeof entry, sizeof entry.callback + 8);
}

TEST(TimerLayoutTest, ServiceIsTheListThenTheLastTime) {
  // Two words for the ends, one for the count; then the time, and the position of a walk.
  EXPECT_EQ(sizeof(timer_service::timer_list), 3 * sizeof(void *));
  struct layout_t {
    timer_service::timer_list timers;
    timespec last_now;
    void *next_to_fire;
  };
  EXPECT_EQ(sizeof(timer_service), sizeof(layout_t));
}

} // namespace
} // namespace vemk
