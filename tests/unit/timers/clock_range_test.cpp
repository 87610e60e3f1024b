// The monotonic clock up to the last second that 32 bits can hold, whatever the width of time_t.

#include "unit/timers/timers_fixture.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t last_second = 2147483647;

class ClockRangeTest : public TimersFixture {
protected:
  void make_service_at(std::int64_t seconds) {
    fake_libc::set_seconds(seconds);
    service = std::make_unique<timer_service>();
  }

  std::vector<std::string> run_at(std::int64_t seconds) {
    fake_libc::set_seconds(seconds);
    return run();
  }
};

// Timers for 2147483646 and 2147483647 fire in their seconds.
TEST_F(ClockRangeTest, TimersFireUpToTheLastSecond) {
  make_service_at(last_second - 5);
  service->add_timer(record("last"), 0, 5);
  service->add_timer(record("earlier"), 0, 4);
  EXPECT_THAT(run(), IsEmpty());
  EXPECT_THAT(run_at(last_second - 1), ElementsAre("earlier"));
  EXPECT_THAT(run_at(last_second), ElementsAre("last"));
}

// 2 seconds from 2147483645 make 40 polls and end at 2147483647.
TEST_F(ClockRangeTest, ADelayEndsWithTheLastSecond) {
  make_service_at(last_second - 2);
  EXPECT_EQ(service->delay_with_callback(2, record("poll")), last_second);
  EXPECT_THAT(fired, testing::SizeIs(40));
}

// 2147483647 + 1 is kept as -2147483648, which is due.
TEST_F(ClockRangeTest, AnExpiryBeyondTheLastSecondLiesFarBackAndFiresAtOnce) {
  make_service_at(last_second - 5);
  EXPECT_EQ(service->add_timer(record("wrapped"), 0, 6)->expiry, -last_second - 1);
  EXPECT_THAT(run(), ElementsAre("wrapped"));
}

// A deadline of 2147483647 + 1 is one far back, so the delay ends after its first poll.
TEST_F(ClockRangeTest, ADelayBeyondTheLastSecondPollsOnce) {
  make_service_at(last_second - 5);
  EXPECT_EQ(service->delay_with_callback(6, record("poll")), last_second - 5);
  EXPECT_THAT(fired, ElementsAre("poll"));
}

// 2147483648 after 2147483647 is a step backward on all eleven readings: exit(-1).
TEST_F(ClockRangeTest, TheSecondAfterTheLastOneEndsTheProcess) {
  make_service_at(last_second);
  fake_libc::set_seconds(std::int64_t{last_second} + 1);
  EXPECT_EQ(fake_libc::exit_status([this] { service->run_expired(); }), -1);
}

} // namespace
} // namespace vemk
