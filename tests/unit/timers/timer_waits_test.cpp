#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"
#include "timers/timer_service.h"

namespace vemk {

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t second_us = 1000000;

/// The clock stands at second 1000.
class TimerWaitsTest : public testing::Test {
protected:
  static timer_service made_at_second_1000() {
    fake_libc::reset();
    return timer_service();
  }

  std::function<void()> record(const std::string &text) {
    return [this, text] { fired.push_back(text); };
  }

  timer_service service = made_at_second_1000();
  std::vector<std::string> fired;
};

class DelayWithCallbackTest : public TimerWaitsTest {};
class WaitWhileTest : public TimerWaitsTest {};
class WaitNextTest : public TimerWaitsTest {};
class SleepSecondsTest : public TimerWaitsTest {};

} // namespace

TEST_F(DelayWithCallbackTest, DelayZeroRunsTheCallbackOnceAfter50Milliseconds) {
  std::vector<std::int64_t> called_at;
  EXPECT_EQ(1000,
            service.delay_with_callback(0, [&] { called_at.push_back(fake_libc::now_us()); }));
  EXPECT_THAT(called_at, ElementsAre(1000 * second_us + 50000));
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(50000));
}

TEST_F(DelayWithCallbackTest, NegativeDelaysRunTheCallbackOnce) {
  int calls = 0;
  EXPECT_EQ(1000, service.delay_with_callback(-1, [&] { ++calls; }));
  EXPECT_EQ(1000, service.delay_with_callback(-2147483647 - 1, [&] { ++calls; }));
  EXPECT_EQ(2, calls);
}

TEST_F(DelayWithCallbackTest, CallbackRunsEvery50MillisecondsUntilTheDeadline) {
  int calls = 0;
  EXPECT_EQ(1003, service.delay_with_callback(3, [&] { ++calls; }));
  EXPECT_EQ(60, calls);
  EXPECT_THAT(fake_libc::sleeps_us(), SizeIs(60));
  EXPECT_THAT(fake_libc::sleeps_us(), Each(50000));
  EXPECT_EQ(1003 * second_us, fake_libc::now_us());
}

TEST_F(DelayWithCallbackTest, DelayEndsWithTheWholeSecondNotWithItsFraction) {
  fake_libc::set_seconds(1000);
  service.delay_with_callback(0, [] {});
  int calls = 0;
  EXPECT_EQ(1001, service.delay_with_callback(1, [&] { ++calls; }));
  EXPECT_EQ(19, calls);
}

TEST_F(DelayWithCallbackTest, SlowCallbackEndsTheDelayAtTheSecondThatItReached) {
  int calls = 0;
  EXPECT_EQ(1009, service.delay_with_callback(2, [&] {
    ++calls;
    fake_libc::advance_seconds(9);
  }));
  EXPECT_EQ(1, calls);
}

TEST_F(DelayWithCallbackTest, ClockIsReadOnceBeforeAndOnceAfterEveryCallback) {
  const int before = fake_libc::clock_reads();
  service.delay_with_callback(1, [] {});
  EXPECT_EQ(before + 1 + 20, fake_libc::clock_reads());
}

TEST_F(DelayWithCallbackTest, LongDelayPassesTheClockCheck) {
  EXPECT_EQ(1000 + 3600, service.delay_with_callback(3600, [] {}));
}

TEST_F(DelayWithCallbackTest, DueTimersWaitForTheNextRun) {
  service.add_timer(record("due"), 0, 0);
  service.delay_with_callback(1, [] {});
  EXPECT_THAT(fired, IsEmpty());
  service.run_expired();
  EXPECT_THAT(fired, ElementsAre("due"));
}

TEST_F(DelayWithCallbackTest, EmptyCallbackThrowsAfterTheFirstSleep) {
  EXPECT_THROW(service.delay_with_callback(1, nullptr), std::bad_function_call);
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(50000));
}

TEST_F(DelayWithCallbackTest, CallbacksExceptionEndsTheDelay) {
  int calls = 0;
  EXPECT_THROW(service.delay_with_callback(60,
                                           [&] {
                                             if (++calls == 3)
                                               throw std::runtime_error("callback");
                                           }),
               std::runtime_error);
  EXPECT_EQ(3, calls);
}

TEST_F(WaitWhileTest, FalseAtOnceNeitherSleepsNorReadsTheClock) {
  const int before = fake_libc::clock_reads();
  EXPECT_EQ(0, service.wait_while([] { return false; }));
  EXPECT_EQ(before, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

TEST_F(WaitWhileTest, SleepsASecondForEveryTrue) {
  const int before = fake_libc::clock_reads();
  int calls = 0;
  EXPECT_EQ(0, service.wait_while([&] { return ++calls <= 15; }));
  EXPECT_EQ(16, calls);
  EXPECT_EQ(before + 15, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::sleeps_us(), SizeIs(15));
  EXPECT_THAT(fake_libc::sleeps_us(), Each(second_us));
}

TEST_F(WaitWhileTest, ClockIsCheckedBeforeTheSleep) {
  fake_libc::advance_seconds(11);
  int calls = 0;
  const std::function<bool()> once = [&] { return ++calls == 1; };
  EXPECT_EQ(-1, fake_libc::exit_status([&] { service.wait_while(once); }));
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

TEST_F(WaitWhileTest, EmptyPredicateThrows) {
  EXPECT_THROW(service.wait_while(nullptr), std::bad_function_call);
}

TEST_F(WaitNextTest, NoTimerReturnsAtOnceAfterOneClockCheck) {
  const int before = fake_libc::clock_reads();
  service.wait_next();
  EXPECT_EQ(before + 1, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

TEST_F(WaitNextTest, OnlyOverdueTimersReturnAtOnceUnfired) {
  service.add_timer(record("overdue"), 0, 1);
  fake_libc::advance_seconds(2);
  service.wait_next();
  EXPECT_THAT(fired, IsEmpty());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

TEST_F(WaitNextTest, SleepsUntilTheFirstTimerAndFiresIt) {
  service.add_timer(record("first"), 0, 7);
  service.add_timer(record("second"), 0, 8);
  service.wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(7 * second_us));
  EXPECT_THAT(fired, ElementsAre("first"));
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

TEST_F(WaitNextTest, OverdueTimersFireAfterTheSleepWithTheOthers) {
  service.add_timer(record("overdue"), 0, 1);
  service.add_timer(record("a"), 0, 4);
  service.add_timer(record("b"), 0, 4);
  fake_libc::advance_seconds(2);
  service.wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(2 * second_us));
  EXPECT_THAT(fired, ElementsAre("overdue", "a", "b"));
}

TEST_F(WaitNextTest, TimerThatIsDueNowIsSleptForZeroSeconds) {
  service.add_timer(record("now"), 0, 0);
  service.wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(0));
  EXPECT_THAT(fired, ElementsAre("now"));
}

TEST_F(WaitNextTest, InterruptedSleepGoesOnWithWhatIsLeft) {
  service.add_timer(record("a"), 0, 5);
  fake_libc::fail_select(EINTR, 2 * second_us + 250000);
  fake_libc::fail_select(EINTR, second_us);
  service.wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(5 * second_us, 2750000, 1750000));
  EXPECT_THAT(fired, ElementsAre("a"));
}

TEST_F(WaitNextTest, ClockIsCheckedAgainAfterTheSleep) {
  service.add_timer(record("too far"), 0, 11);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service.wait_next(); }));
  EXPECT_THAT(fired, IsEmpty());
}

TEST_F(SleepSecondsTest, SleepsInOneSelect) {
  EXPECT_EQ(0, timer_service::sleep_seconds(3));
  EXPECT_EQ(0, timer_service::sleep_seconds(0));
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(3 * second_us, 0));
  EXPECT_EQ(1003 * second_us, fake_libc::now_us());
}

TEST_F(SleepSecondsTest, InterruptedSleepGoesOnWithWhatIsLeft) {
  fake_libc::fail_select(EINTR, 1500000);
  EXPECT_EQ(0, timer_service::sleep_seconds(4));
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(4 * second_us, 2500000));
  EXPECT_EQ(1004 * second_us, fake_libc::now_us());
}

TEST_F(SleepSecondsTest, OtherFailureIsReturned) {
  fake_libc::fail_select(EINVAL, 0);
  EXPECT_EQ(EINVAL, timer_service::sleep_seconds(4));
  fake_libc::fail_select(EINTR, second_us);
  fake_libc::fail_select(EBADF, 0);
  EXPECT_EQ(EBADF, timer_service::sleep_seconds(4));
}

TEST_F(SleepSecondsTest, ClockIsNotRead) {
  const int before = fake_libc::clock_reads();
  timer_service::sleep_seconds(60);
  EXPECT_EQ(before, fake_libc::clock_reads());
}

} // namespace vemk
