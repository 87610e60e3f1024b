#include <cerrno>
#include <stdexcept>
#include <unistd.h>

#include "unit/timers/timers_fixture.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t second_us = 1000000;

class DelayWithCallbackTest : public TimersFixture {};
class MillisecondsUntilTest : public TimersFixture {};
class WaitWhileTest : public TimersFixture {};
class WaitNextTest : public TimersFixture {};
class SleepSecondsTest : public TimersFixture {};

} // namespace

// Delays of 0, -1 and -2147483648: usleep(50000), one call after it, and 1000 is returned.
TEST_F(DelayWithCallbackTest, DelayOfZeroOrLessRunsTheCallbackOnceAfter50Milliseconds) {
  std::vector<std::int64_t> called_at;
  for (const std::int32_t delay : {0, -1, -2147483647 - 1})
    EXPECT_EQ(1000, service->delay_with_callback(
                        delay, [&] { called_at.push_back(fake_libc::now_us()); }));
  EXPECT_THAT(called_at, ElementsAre(1000 * second_us + 50000, 1000 * second_us + 100000,
                                     1000 * second_us + 150000));
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(50000, 50000, 50000));
}

// 3 seconds are 60 sleeps of 50000 us, each with a call and a clock reading; 1003 is returned.
TEST_F(DelayWithCallbackTest, CallbackRunsEvery50MillisecondsUntilTheDeadline) {
  const int before = fake_libc::clock_reads();
  int calls = 0;
  EXPECT_EQ(1003, service->delay_with_callback(3, [&] { ++calls; }));
  EXPECT_EQ(60, calls);
  EXPECT_EQ(before + 1 + 60, fake_libc::clock_reads());
  EXPECT_EQ(fake_libc::sleeps_us(), std::vector<std::int64_t>(60, 50000));
  EXPECT_EQ(1003 * second_us, fake_libc::now_us());
}

// 1 second from 1000.05 s ends at 1001.0 s after 19 calls.
TEST_F(DelayWithCallbackTest, DelayEndsWithTheWholeSecondNotWithItsFraction) {
  service->delay_with_callback(0, [] {});
  int calls = 0;
  EXPECT_EQ(1001, service->delay_with_callback(1, [&] { ++calls; }));
  EXPECT_EQ(19, calls);
}

// A call that takes 9 seconds of a delay of 2 is the only one, and 1009 is returned.
TEST_F(DelayWithCallbackTest, SlowCallbackEndsTheDelayAtTheSecondThatItReached) {
  int calls = 0;
  EXPECT_EQ(1009, service->delay_with_callback(2, [&] {
    ++calls;
    fake_libc::advance_seconds(9);
  }));
  EXPECT_EQ(1, calls);
}

// 3600 seconds end at 4600, since every poll's reading is kept as the last good one.
TEST_F(DelayWithCallbackTest, LongDelayPassesTheClockCheck) {
  EXPECT_EQ(1000 + 3600, service->delay_with_callback(3600, [] {}));
}

// A timer that is due all through a delay of 1 second fires in the run after it.
TEST_F(DelayWithCallbackTest, DueTimersWaitForTheNextRun) {
  service->add_timer(record("due"), 0, 0);
  service->delay_with_callback(1, [] {});
  EXPECT_THAT(fired, IsEmpty());
  service->run_expired();
  EXPECT_THAT(fired, ElementsAre("due"));
}

// What its callback adds and cancels counts at the next run_expired().
TEST_F(DelayWithCallbackTest, CallbackMayAddAndCancelTimers) {
  service->add_timer(record("cancelled"), 7, 0);
  int calls = 0;
  service->delay_with_callback(1, [&] {
    if (++calls == 2)
      service->cancel_timers(7);
    if (calls == 3)
      service->add_timer(record("added"), 7, 0);
  });
  EXPECT_THAT(fired, IsEmpty());
  service->run_expired();
  EXPECT_THAT(fired, ElementsAre("added"));
}

// std::bad_function_call comes after one sleep of 50000 us.
TEST_F(DelayWithCallbackTest, EmptyCallbackThrowsAfterTheFirstSleep) {
  EXPECT_THROW(service->delay_with_callback(1, nullptr), std::bad_function_call);
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(50000));
}

// An exception in the third call leaves a delay of 60 seconds.
TEST_F(DelayWithCallbackTest, CallbacksExceptionEndsTheDelay) {
  int calls = 0;
  EXPECT_THROW(service->delay_with_callback(60,
                                            [&] {
                                              if (++calls == 3)
                                                throw std::runtime_error("callback");
                                            }),
               std::runtime_error);
  EXPECT_EQ(3, calls);
}

// Each pause is given the milliseconds that are left, 3000, 2000 and 500; a call follows each.
TEST_F(DelayWithCallbackTest, PauseOfTheCallersGetsTheRestOfTheDelay) {
  std::vector<std::int32_t> pauses;
  std::vector<std::int64_t> called_at;
  const std::vector<useconds_t> lengths = {1000000, 1500000, 500000};
  EXPECT_EQ(1003, service->delay_with_callback(
                      3, [&] { called_at.push_back(fake_libc::now_us() - 1000 * second_us); },
                      [&](std::int32_t milliseconds) {
                        pauses.push_back(milliseconds);
                        usleep(lengths.at(pauses.size() - 1));
                      }));
  EXPECT_THAT(pauses, ElementsAre(3000, 2000, 500));
  EXPECT_THAT(called_at, ElementsAre(1000000, 2500000, 3000000));
}

// Delays of 0 and -1 call the pause once with 0 ms, and the callback once.
TEST_F(DelayWithCallbackTest, PauseOfTheCallersMayBeZero) {
  for (const std::int32_t delay : {0, -1}) {
    std::vector<std::int32_t> pauses;
    int calls = 0;
    EXPECT_EQ(1000, service->delay_with_callback(
                        delay, [&] { ++calls; },
                        [&](std::int32_t milliseconds) { pauses.push_back(milliseconds); }));
    EXPECT_THAT(pauses, ElementsAre(0));
    EXPECT_EQ(1, calls);
  }
}

// A pause of 60 seconds passes the clock check because it was announced.
TEST_F(DelayWithCallbackTest, AnnouncedPauseMayBeLong) {
  const auto pause = [&](std::int32_t milliseconds) {
    service->expect_wait(milliseconds);
    fake_libc::advance_seconds(milliseconds / 1000);
  };
  EXPECT_EQ(1060, service->delay_with_callback(
                      60, [] {}, pause));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// Without a timer it is the time to the given second: 5000 ms to 1005, 0 to 1000 and 999.
TEST_F(MillisecondsUntilTest, WithoutATimerTheSecondCounts) {
  EXPECT_EQ(5000, service->milliseconds_until(1005));
  EXPECT_EQ(0, service->milliseconds_until(1000));
  EXPECT_EQ(0, service->milliseconds_until(999));
}

// Timers in 8 and 3 seconds: 3000 ms; a second before that counts instead: 2000.
TEST_F(MillisecondsUntilTest, FirstTimerOrTheSecondWhicheverIsEarlier) {
  service->add_timer([] {}, 0, 8);
  service->add_timer([] {}, 0, 3);
  EXPECT_EQ(3000, service->milliseconds_until(1060));
  EXPECT_EQ(2000, service->milliseconds_until(1002));
}

// A timer of this second, and one that is overdue, give 0.
TEST_F(MillisecondsUntilTest, DueTimerGivesZero) {
  service->add_timer([] {}, 0, 0);
  EXPECT_EQ(0, service->milliseconds_until(1060));
  fake_libc::advance_seconds(1);
  EXPECT_EQ(0, service->milliseconds_until(1060));
}

// From 1000.4 s it is 600 ms to 1001; from 1000.0005 s it is 1000 ms, rounded up.
TEST_F(MillisecondsUntilTest, PartOfAMillisecondCountsAsAWhole) {
  usleep(500);
  EXPECT_EQ(1000, service->milliseconds_until(1001));
  usleep(399500);
  EXPECT_EQ(600, service->milliseconds_until(1001));
}

// An hour is the most, also for second 2147483647 from -2147483648 on.
TEST_F(MillisecondsUntilTest, OneHourIsTheMost) {
  EXPECT_EQ(3600000, service->milliseconds_until(4600));
  EXPECT_EQ(3600000, service->milliseconds_until(4601));
  EXPECT_EQ(3599000, service->milliseconds_until(4599));
  fake_libc::set_seconds(-2147483647LL - 1);
  EXPECT_EQ(3600000, service->milliseconds_until(2147483647));
}

// It returns 0 after one question.
TEST_F(WaitWhileTest, FalseAtOnceNeitherSleepsNorReadsTheClock) {
  const int before = fake_libc::clock_reads();
  EXPECT_EQ(0, service->wait_while([] { return false; }));
  EXPECT_EQ(before, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

// 15 times true: 15 clock readings, 15 sleeps of 1000000 us, then 0 is returned.
TEST_F(WaitWhileTest, SleepsASecondForEveryTrue) {
  const int before = fake_libc::clock_reads();
  int calls = 0;
  EXPECT_EQ(0, service->wait_while([&] { return ++calls <= 15; }));
  EXPECT_EQ(16, calls);
  EXPECT_EQ(before + 15, fake_libc::clock_reads());
  EXPECT_EQ(fake_libc::sleeps_us(), std::vector<std::int64_t>(15, second_us));
}

// At 11 seconds ahead it calls exit(-1) without having slept.
TEST_F(WaitWhileTest, ClockIsCheckedBeforeTheSleep) {
  fake_libc::advance_seconds(11);
  int calls = 0;
  const std::function<bool()> once = [&] { return ++calls == 1; };
  EXPECT_EQ(-1, fake_libc::exit_status([&] { service->wait_while(once); }));
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

// wait_while(nullptr) throws std::bad_function_call.
TEST_F(WaitWhileTest, EmptyPredicateThrows) {
  EXPECT_THROW(service->wait_while(nullptr), std::bad_function_call);
}

// With an empty list the clock is read once and select is not called.
TEST_F(WaitNextTest, NoTimerReturnsAtOnceAfterOneClockCheck) {
  const int before = fake_libc::clock_reads();
  service->wait_next();
  EXPECT_EQ(before + 1, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

// A timer of second 1001 is neither slept for nor fired at 1002.
TEST_F(WaitNextTest, OnlyOverdueTimersReturnAtOnceUnfired) {
  service->add_timer(record("overdue"), 0, 1);
  fake_libc::advance_seconds(2);
  service->wait_next();
  EXPECT_THAT(fired, IsEmpty());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

// With timers in 7 and 8 seconds it selects once for 7 and fires the first alone.
TEST_F(WaitNextTest, SleepsUntilTheFirstTimerAndFiresIt) {
  service->add_timer(record("first"), 0, 7);
  service->add_timer(record("second"), 0, 8);
  service->wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(7 * second_us));
  EXPECT_THAT(fired, ElementsAre("first"));
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

// It sleeps for the first timer that is not overdue, then the overdue one fires first.
TEST_F(WaitNextTest, OverdueTimersFireAfterTheSleepWithTheOthers) {
  service->add_timer(record("overdue"), 0, 1);
  service->add_timer(record("a"), 0, 4);
  service->add_timer(record("b"), 0, 4);
  fake_libc::advance_seconds(2);
  service->wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(2 * second_us));
  EXPECT_THAT(fired, ElementsAre("overdue", "a", "b"));
}

// It selects with a timeout of 0 and fires.
TEST_F(WaitNextTest, TimerThatIsDueNowIsSleptForZeroSeconds) {
  service->add_timer(record("now"), 0, 0);
  service->wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(0));
  EXPECT_THAT(fired, ElementsAre("now"));
}

// EINTR after 2.25 s and after 1 s of 5 s gives selects of 5, 2.75 and 1.75 s.
TEST_F(WaitNextTest, InterruptedSleepGoesOnWithWhatIsLeft) {
  service->add_timer(record("a"), 0, 5);
  fake_libc::fail_select(EINTR, 2 * second_us + 250000);
  fake_libc::fail_select(EINTR, second_us);
  service->wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(5 * second_us, 2750000, 1750000));
  EXPECT_THAT(fired, ElementsAre("a"));
}

// EINVAL ends the sleep at once; nothing is due yet, so the timer fires at the next wait.
TEST_F(WaitNextTest, FailedSleepFiresOnlyWhatIsDue) {
  service->add_timer(record("a"), 0, 5);
  fake_libc::fail_select(EINVAL, 0);
  service->wait_next();
  EXPECT_THAT(fired, IsEmpty());
  service->wait_next();
  EXPECT_THAT(fired, ElementsAre("a"));
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(5 * second_us, 5 * second_us));
}

// The callback's cancelling takes the timer of the same second, its new timer waits for its own.
TEST_F(WaitNextTest, CallbackMayAddAndCancelTimers) {
  service->add_timer(
      [this] {
        service->cancel_timers(7);
        service->add_timer(record("added"), 7, 3);
      },
      0, 2);
  service->add_timer(record("cancelled"), 7, 2);
  service->wait_next();
  EXPECT_THAT(fired, IsEmpty());
  service->wait_next();
  EXPECT_THAT(fired, ElementsAre("added"));
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(2 * second_us, 3 * second_us));
}

// The empty callback's entry is gone after the exception, so the next wait finds no timer.
TEST_F(WaitNextTest, EmptyCallbackThrowsAfterTheSleep) {
  service->add_timer(nullptr, 0, 1);
  EXPECT_THROW(service->wait_next(), std::bad_function_call);
  service->wait_next();
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(second_us));
}

// A sleep of 10 seconds passes the check after it; one of 11 seconds ends in exit(-1), unfired.
TEST_F(WaitNextTest, ClockIsCheckedAgainAfterTheSleep) {
  service->add_timer(record("far"), 0, 10);
  service->wait_next();
  EXPECT_THAT(fired, ElementsAre("far"));
  service->add_timer(record("too far"), 0, 11);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service->wait_next(); }));
  EXPECT_THAT(fired, ElementsAre("far"));
}

// 60 and 0 seconds are one select each and return 0; no clock is read.
TEST_F(SleepSecondsTest, SleepsInOneSelect) {
  const int before = fake_libc::clock_reads();
  EXPECT_EQ(0, timer_service::sleep_seconds(60));
  EXPECT_EQ(0, timer_service::sleep_seconds(0));
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(60 * second_us, 0));
  EXPECT_EQ(1060 * second_us, fake_libc::now_us());
  EXPECT_EQ(before, fake_libc::clock_reads());
}

// EINTR after 1.5 s of 4 s gives selects of 4 and 2.5 s and the result 0.
TEST_F(SleepSecondsTest, InterruptedSleepGoesOnWithWhatIsLeft) {
  fake_libc::fail_select(EINTR, 1500000);
  EXPECT_EQ(0, timer_service::sleep_seconds(4));
  EXPECT_THAT(fake_libc::select_timeouts_us(), ElementsAre(4 * second_us, 2500000));
  EXPECT_EQ(1004 * second_us, fake_libc::now_us());
}

// EINVAL, and EBADF after an EINTR, are the results.
TEST_F(SleepSecondsTest, OtherFailureIsReturned) {
  fake_libc::fail_select(EINVAL, 0);
  EXPECT_EQ(EINVAL, timer_service::sleep_seconds(4));
  fake_libc::fail_select(EINTR, second_us);
  fake_libc::fail_select(EBADF, 0);
  EXPECT_EQ(EBADF, timer_service::sleep_seconds(4));
}

} // namespace vemk
