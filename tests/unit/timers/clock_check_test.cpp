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

TEST_F(ClockCheckTest, SameSecondAndTenSecondsForwardPass) {
  fake_libc::script_readings({1000, 1010, 1020, 1020});
  for (int i = 0; i < 4; ++i)
    timers().run_expired();
  EXPECT_EQ(5, fake_libc::clock_reads());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(ClockCheckTest, ElevenSecondsForwardFail) {
  fake_libc::script_readings({1011, 1000});
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("1011", "1000", 0)));
}

TEST_F(ClockCheckTest, OneSecondBackwardFails) {
  fake_libc::script_readings({999, 1000});
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("999", "1000", 0)));
}

TEST_F(ClockCheckTest, NanosecondsAreNotCompared) {
  usleep(900000);
  timers().run_expired();
  fake_libc::set_seconds(1000);
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(ClockCheckTest, BadReadingIsRepeatedAtOnceAndOnlyLogged) {
  fake_libc::script_readings({500, 1011, 1004});
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(time_error("500", "1000", 0), time_error("1011", "1000", 1)));
  EXPECT_EQ(4, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

TEST_F(ClockCheckTest, GoodReadingBecomesTheOneToCompareWith) {
  fake_libc::script_readings({1011, 1008, 1018, 1007, 1018});
  timers().run_expired();
  timers().run_expired();
  timers().run_expired();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(time_error("1011", "1000", 0), time_error("1007", "1018", 0)));
}

TEST_F(ClockCheckTest, EleventhReadingMayStillPass) {
  std::vector<std::int64_t> readings(10, 1011);
  readings.push_back(1010);
  fake_libc::script_readings(readings);
  timers().run_expired();
  EXPECT_EQ(12, fake_libc::clock_reads());
  ASSERT_EQ(10u, fake_log::lines().size());
  EXPECT_EQ(time_error("1011", "1000", 9), fake_log::lines().back());
}

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

TEST_F(ClockCheckTest, AttemptsAreCountedAnewAtEveryCheck) {
  fake_libc::script_readings({1, 2, 1000, 3, 1000});
  timers().run_expired();
  timers().run_expired();
  EXPECT_EQ(time_error("3", "1000", 0), fake_log::lines().back());
}

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

TEST_F(ClockCheckTest, FailedCheckAddsNoTimer) {
  fake_libc::set_seconds(900);
  ASSERT_EQ(-1, fake_libc::exit_status(
                    [this] { timers().add_timer([] { ADD_FAILURE() << "fired"; }, 0, 0); }));
  fake_libc::set_seconds(1000);
  timers().run_expired();
}

TEST_F(ClockCheckTest, FailedCheckFiresNothing) {
  timers().add_timer(failure, 0, 0);
  fake_libc::advance_seconds(11);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { timers().run_expired(); }));
}

TEST_F(ClockCheckTest, DelayIsEndedByAClockThatJumpsInItsCallback) {
  int calls = 0;
  const std::function<void()> jump = [&] {
    ++calls;
    fake_libc::advance_seconds(11);
  };
  EXPECT_EQ(-1, fake_libc::exit_status([&] { timers().delay_with_callback(60, jump); }));
  EXPECT_EQ(1, calls);
}

TEST_F(ClockCheckTest, SecondsAreComparedAsSigned32BitValues) {
  fake_libc::script_readings({2147483637});
  timer_service late;
  fake_libc::script_readings({2147483647, 2147483648, 2147483647});
  late.run_expired();
  late.run_expired();
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("2147483648", "2147483647", 0)));
}

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

TEST_F(ClockCheckTest, MessagesAreOfTheDebugCategory) {
  g_log_level = 0xFFFFFFF7;
  timer_service other;
  fake_libc::script_readings({999, 1000});
  other.run_expired();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

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
