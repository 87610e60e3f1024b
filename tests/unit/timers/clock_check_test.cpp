#include <functional>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "log/log_module.h"
#include "timers/timer_service.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The clock stands at second 1000 when the service is made; the debug category is on.
class ClockCheckTest : public testing::Test {
protected:
  ClockCheckTest() {
    fake_libc::reset();
    fake_log::clear();
    g_log_level = 0x08;
    service = std::make_unique<timer_service>();
  }

  ~ClockCheckTest() override { g_log_level = 0; }

  timer_service &timers() { return *service; }

  static std::string time_error(const std::string &now, const std::string &last, int attempt) {
    return "|" + std::to_string(getpid()) +
           "|timers> time_monotonic: Time error, need restart, expired [" + now + "] [" + last +
           "] cnt " + std::to_string(attempt) + "\n";
  }

  std::unique_ptr<timer_service> service;
};

class ClockCheckDeathTest : public ClockCheckTest {
protected:
  ClockCheckDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Objects that exit() would leave behind are made outside the operations that call it.
const std::function<void()> nothing = [] {};
const std::function<void()> failure = [] { ADD_FAILURE() << "fired"; };

} // namespace

// Second 5 is taken unchecked, and second 15, ten later, passes the first check.
TEST_F(ClockCheckTest, ConstructorReadsTheClockOnceAndTakesAnyTimeAsGood) {
  fake_libc::reset();
  fake_libc::script_readings({5});
  timer_service other;
  EXPECT_EQ(1, fake_libc::clock_reads());
  fake_libc::script_readings({15});
  other.run_expired();
  EXPECT_EQ(2, fake_libc::clock_reads());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// 1000, 1010, 1020 and 1020 after 1000 each pass at the first reading, without a line.
TEST_F(ClockCheckTest, SameSecondAndTenSecondsForwardPass) {
  fake_libc::script_readings({1000, 1010, 1020, 1020});
  for (int i = 0; i < 4; ++i)
    timers().run_expired();
  EXPECT_EQ(5, fake_libc::clock_reads());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// 1011 after 1000 is logged as "expired [1011] [1000] cnt 0", and the clock is read again.
TEST_F(ClockCheckTest, ElevenSecondsForwardFail) {
  fake_libc::script_readings({1011, 1000});
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("1011", "1000", 0)));
}

// 999 after 1000 is logged as "expired [999] [1000] cnt 0", and the clock is read again.
TEST_F(ClockCheckTest, OneSecondBackwardFails) {
  fake_libc::script_readings({999, 1000});
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("999", "1000", 0)));
}

// After 1000.9 s the reading 1000.0 s, earlier in the same second, passes.
TEST_F(ClockCheckTest, NanosecondsAreNotCompared) {
  usleep(900000);
  timers().run_expired();
  fake_libc::set_seconds(1000);
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// Readings 500 and 1011 give the counters 0 and 1, 1004 goes on; nothing sleeps between them.
TEST_F(ClockCheckTest, BadReadingIsRepeatedAtOnceAndOnlyLogged) {
  fake_libc::script_readings({500, 1011, 1004});
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(time_error("500", "1000", 0), time_error("1011", "1000", 1)));
  EXPECT_EQ(4, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

// After 1008 the reading 1018 passes, and after 1018 the reading 1007 is logged against 1018.
TEST_F(ClockCheckTest, GoodReadingBecomesTheOneToCompareWith) {
  fake_libc::script_readings({1011, 1008, 1018, 1007, 1018});
  timers().run_expired();
  timers().run_expired();
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(time_error("1011", "1000", 0), time_error("1007", "1018", 0)));
}

// After 1 to 10 bad readings a good one goes on, with the counters 0 to 9 at most in the lines.
TEST_F(ClockCheckTest, AnyNumberOfBadReadingsUpToTenIsOnlyLogged) {
  for (int bad = 1; bad <= 10; ++bad) {
    fake_log::clear();
    int fired = 0;
    timers().add_timer([&] { ++fired; }, 0, 0);
    std::vector<std::int64_t> readings(static_cast<std::size_t>(bad), 999);
    readings.push_back(1000);
    fake_libc::script_readings(readings);
    timers().run_expired();
    std::vector<std::string> expected;
    for (int attempt = 0; attempt < bad; ++attempt)
      expected.push_back(time_error("999", "1000", attempt));
    EXPECT_EQ(expected, fake_log::lines()) << bad;
    EXPECT_EQ(1, fired) << bad;
  }
}

// Ten times 1011 and then 1010 goes on; the last of the ten lines carries the counter 9.
TEST_F(ClockCheckTest, EleventhReadingMayStillPass) {
  std::vector<std::int64_t> readings(10, 1011);
  readings.push_back(1010);
  fake_libc::script_readings(readings);
  timers().run_expired();
  EXPECT_EQ(12, fake_libc::clock_reads());
  ASSERT_EQ(10u, fake_log::lines().size());
  EXPECT_EQ(time_error("1011", "1000", 9), fake_log::lines().back());
}

// Eleven times 1011 after 1000 logs the counters 0 to 10 and calls exit(-1), without a sleep.
TEST_F(ClockCheckTest, ElevenBadReadingsEndTheProcess) {
  fake_libc::advance_seconds(11);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { timers().run_expired(); }));
  EXPECT_EQ(12, fake_libc::clock_reads());
  std::vector<std::string> expected;
  for (int attempt = 0; attempt <= 10; ++attempt)
    expected.push_back(time_error("1011", "1000", attempt));
  EXPECT_EQ(expected, fake_log::lines());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

// After a check with two bad readings the next check's bad one has the counter 0 again.
TEST_F(ClockCheckTest, AttemptsAreCountedAnewAtEveryCheck) {
  fake_libc::script_readings({1, 2, 1000, 3, 1000});
  timers().run_expired();
  timers().run_expired();
  EXPECT_EQ(time_error("3", "1000", 0), fake_log::lines().back());
}

// add_timer, run_expired, delay_with_callback, wait_while and wait_next exit(-1) at 900 after 1000.
TEST_F(ClockCheckTest, EveryOperationThatReadsTheClockChecksIt) {
  int calls = 0;
  const std::function<bool()> once = [&] { return ++calls == 1; };
  fake_libc::set_seconds(900);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { timers().add_timer(nothing, 0, 1); }));
  EXPECT_EQ(-1, fake_libc::exit_status([this] { timers().run_expired(); }));
  EXPECT_EQ(-1, fake_libc::exit_status([this] { timers().delay_with_callback(1, nothing); }));
  EXPECT_EQ(-1, fake_libc::exit_status([&] { timers().wait_while(once); }));
  EXPECT_EQ(-1, fake_libc::exit_status([this] { timers().wait_next(); }));
  EXPECT_EQ(55u, fake_log::lines().size());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

// With 8 seconds before each of the five operations none finds a step of more than 10.
TEST_F(ClockCheckTest, EveryOperationThatReadsTheClockKeepsItsReading) {
  fake_libc::advance_seconds(8);
  timers().add_timer(nothing, 0, 60);
  fake_libc::advance_seconds(8);
  timers().run_expired();
  fake_libc::advance_seconds(8);
  timers().delay_with_callback(0, nothing);
  fake_libc::advance_seconds(8);
  int calls = 0;
  timers().wait_while([&] { return ++calls == 1; });
  fake_libc::advance_seconds(8);
  timers().cancel_timers(0);
  timers().wait_next();
  fake_libc::advance_seconds(8);
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// After an add_timer that called exit(-1) the list is empty.
TEST_F(ClockCheckTest, FailedCheckAddsNoTimer) {
  fake_libc::set_seconds(900);
  ASSERT_EQ(-1, fake_libc::exit_status(
                    [this] { timers().add_timer([] { ADD_FAILURE() << "fired"; }, 0, 0); }));
  fake_libc::set_seconds(1000);
  timers().run_expired();
}

// A due timer stays unfired when run_expired calls exit(-1).
TEST_F(ClockCheckTest, FailedCheckFiresNothing) {
  timers().add_timer(failure, 0, 0);
  fake_libc::advance_seconds(11);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { timers().run_expired(); }));
}

// A jump of 11 seconds in the first call is followed by exit(-1), not by a second call.
TEST_F(ClockCheckTest, DelayIsEndedByAClockThatJumpsInItsCallback) {
  int calls = 0;
  const std::function<void()> jump = [&] {
    ++calls;
    fake_libc::advance_seconds(11);
  };
  EXPECT_EQ(-1, fake_libc::exit_status([&] { timers().delay_with_callback(60, jump); }));
  EXPECT_EQ(1, calls);
}

// 2147483648 lies before 2147483647, so it fails, and is printed unsigned.
TEST_F(ClockCheckTest, SecondsAreComparedAsSigned32BitValues) {
  fake_libc::script_readings({2147483637});
  timer_service late;
  fake_libc::script_readings({2147483647, 2147483648, 2147483647});
  late.run_expired();
  late.run_expired();
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("2147483648", "2147483647", 0)));
}

// "timers" keeps the debug bit when g_log_level is cleared, until the next service is built.
TEST_F(ClockCheckTest, LevelIsCopiedAtConstructionOnly) {
  g_log_level = 0;
  fake_libc::script_readings({999, 1000});
  timers().run_expired();
  EXPECT_EQ(1u, fake_log::lines().size());

  timer_service silent;
  fake_libc::script_readings({999, 1000});
  silent.run_expired();
  EXPECT_EQ(1u, fake_log::lines().size());
  g_log_level = 0x08;
  fake_libc::script_readings({999, 1000});
  silent.run_expired();
  EXPECT_EQ(1u, fake_log::lines().size());
}

// With every bit but 0x08 set a bad reading logs nothing.
TEST_F(ClockCheckTest, MessagesAreOfTheDebugCategory) {
  g_log_level = 0xFFFFFFF7;
  timer_service other;
  fake_libc::script_readings({999, 1000});
  other.run_expired();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// A clock that stays 11 seconds ahead ends the process through exit(-1).
TEST_F(ClockCheckDeathTest, ProcessEndsWithStatus255) {
  EXPECT_EXIT(
      {
        fake_libc::let_exit_end_the_process();
        fake_libc::advance_seconds(11);
        timers().run_expired();
      },
      testing::ExitedWithCode(255), "");
}

} // namespace vemk
