#include <unistd.h>
#include <utility>

#include "unit/timers/timers_fixture.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ClockCheckTest : public TimersFixture {
protected:
  static std::string time_error(const std::string &now, const std::string &last, int attempt) {
    return log_line("timers", "time_monotonic: Time error, need restart, expired [" + now + "] [" +
                                  last + "] cnt " + std::to_string(attempt) + "\n");
  }
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
  service = std::make_unique<timer_service>();
  EXPECT_EQ(1, fake_libc::clock_reads());
  run_with({15});
  EXPECT_EQ(2, fake_libc::clock_reads());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// 1000, 1010, 1020 and 1020 after 1000 each pass at the first reading, without a line.
TEST_F(ClockCheckTest, SameSecondAndTenSecondsForwardPass) {
  fake_libc::script_readings({1000, 1010, 1020, 1020});
  for (int i = 0; i < 4; ++i)
    service->run_expired();
  EXPECT_EQ(5, fake_libc::clock_reads());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// 1011 and 999 after 1000 are logged, "expired [1011] [1000] cnt 0", and the clock is read again.
TEST_F(ClockCheckTest, ElevenSecondsForwardAndOneBackwardFail) {
  run_with({1011, 1000});
  run_with({999, 1000});
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(time_error("1011", "1000", 0), time_error("999", "1000", 0)));
}

// After 1000.9 s the reading 1000.0 s, earlier in the same second, passes.
TEST_F(ClockCheckTest, NanosecondsAreNotCompared) {
  usleep(900000);
  service->run_expired();
  fake_libc::set_seconds(1000);
  service->run_expired();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// Readings 500 and 1011 give the counters 0 and 1, 1004 goes on; nothing sleeps between them.
TEST_F(ClockCheckTest, BadReadingIsRepeatedAtOnceAndOnlyLogged) {
  run_with({500, 1011, 1004});
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(time_error("500", "1000", 0), time_error("1011", "1000", 1)));
  EXPECT_EQ(4, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

// After 1008 the reading 1018 passes, and after 1018 the reading 1007 is logged against 1018.
TEST_F(ClockCheckTest, GoodReadingBecomesTheOneToCompareWith) {
  run_with({1011, 1008, 1018, 1007, 1018});
  service->run_expired();
  service->run_expired();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(time_error("1011", "1000", 0), time_error("1007", "1018", 0)));
}

// After 1 to 10 bad readings a good one goes on; in the lines each check counts from 0, to 9.
TEST_F(ClockCheckTest, AnyNumberOfBadReadingsUpToTenIsOnlyLogged) {
  for (const char *bad : {"999", "1011"}) {
    for (int count = 1; count <= 10; ++count) {
      fake_log::clear();
      service->add_timer(record("due"), 0, 0);
      std::vector<std::int64_t> readings(static_cast<std::size_t>(count), std::stoi(bad));
      readings.push_back(1000);
      const int before = fake_libc::clock_reads();
      run_with(readings);
      EXPECT_EQ(before + count + 1, fake_libc::clock_reads());
      std::vector<std::string> expected;
      for (int attempt = 0; attempt < count; ++attempt)
        expected.push_back(time_error(bad, "1000", attempt));
      EXPECT_EQ(expected, fake_log::lines()) << count;
      EXPECT_THAT(std::exchange(fired, {}), ElementsAre("due")) << count;
    }
  }
}

// Eleven times 1011 after 1000 logs the counters 0 to 10 and calls exit(-1), without a sleep.
TEST_F(ClockCheckTest, ElevenBadReadingsEndTheProcess) {
  fake_libc::advance_seconds(11);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service->run_expired(); }));
  EXPECT_EQ(12, fake_libc::clock_reads());
  std::vector<std::string> expected;
  for (int attempt = 0; attempt <= 10; ++attempt)
    expected.push_back(time_error("1011", "1000", attempt));
  EXPECT_EQ(expected, fake_log::lines());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

// add_timer, run_expired, delay_with_callback, wait_while and wait_next exit(-1) at 900 after 1000.
TEST_F(ClockCheckTest, EveryOperationThatReadsTheClockChecksIt) {
  int calls = 0;
  const std::function<bool()> once = [&] { return ++calls == 1; };
  fake_libc::set_seconds(900);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service->add_timer(nothing, 0, 1); }));
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service->run_expired(); }));
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service->delay_with_callback(1, nothing); }));
  EXPECT_EQ(-1, fake_libc::exit_status([&] { service->wait_while(once); }));
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service->wait_next(); }));
  EXPECT_EQ(55u, fake_log::lines().size());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
}

// With 8 seconds before each of the five operations none finds a step of more than 10.
TEST_F(ClockCheckTest, EveryOperationThatReadsTheClockKeepsItsReading) {
  fake_libc::advance_seconds(8);
  service->add_timer(nothing, 0, 60);
  fake_libc::advance_seconds(8);
  service->run_expired();
  fake_libc::advance_seconds(8);
  service->delay_with_callback(0, nothing);
  fake_libc::advance_seconds(8);
  int calls = 0;
  service->wait_while([&] { return ++calls == 1; });
  fake_libc::advance_seconds(8);
  service->cancel_timers(0);
  service->wait_next();
  fake_libc::advance_seconds(8);
  service->run_expired();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// After exit(-1) in add_timer the list is empty; after it in run_expired a due timer is unfired.
TEST_F(ClockCheckTest, FailedCheckAddsNoTimerAndFiresNothing) {
  fake_libc::set_seconds(900);
  ASSERT_EQ(-1, fake_libc::exit_status(
                    [this] { service->add_timer([] { ADD_FAILURE() << "fired"; }, 0, 0); }));
  fake_libc::set_seconds(1000);
  service->run_expired();
  service->add_timer(failure, 0, 0);
  fake_libc::advance_seconds(11);
  EXPECT_EQ(-1, fake_libc::exit_status([this] { service->run_expired(); }));
}

// After a wait of 30 s the reading 1040 passes, and 1041 is logged against 1000.
TEST_F(ClockCheckTest, AnnouncedWaitIsAllowedOnTopOfTenSeconds) {
  service->expect_wait(30000);
  run_with({1041, 1040});
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("1041", "1000", 0)));
}

// 29001 ms count as 30 s and 30001 ms as 31 s; 0 ms allow the usual 10 s.
TEST_F(ClockCheckTest, AnnouncedWaitIsRoundedUpToSeconds) {
  const std::pair<std::int32_t, std::int64_t> cases[] = {{29001, 40}, {30000, 40}, {30001, 41},
                                                         {999, 11},   {1, 11},     {0, 10}};
  for (const auto &[milliseconds, seconds] : cases) {
    const std::int64_t start = fake_libc::now_us() / 1000000;
    service->expect_wait(milliseconds);
    run_with({start + seconds + 1, start + seconds});
    EXPECT_EQ(1u, fake_log::lines().size()) << milliseconds;
    fake_log::clear();
    fake_libc::set_seconds(start + seconds);
  }
}

// The wait counts for one good reading only, also if it ended early: after 1001, 1012 is too late.
TEST_F(ClockCheckTest, AnnouncedWaitCountsOnce) {
  service->expect_wait(30000);
  run_with({1001});
  run_with({1012, 1011});
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("1012", "1001", 0)));
}

// A bad reading in between does not use the wait up: 999 is logged, then 1040 passes.
TEST_F(ClockCheckTest, AnnouncedWaitOutlastsABadReading) {
  service->expect_wait(30000);
  run_with({999, 1040});
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("999", "1000", 0)));
}

// A jump of 11 seconds in the first call is followed by exit(-1), not by a second call.
TEST_F(ClockCheckTest, DelayIsEndedByAClockThatJumpsInItsCallback) {
  int calls = 0;
  const std::function<void()> jump = [&] {
    ++calls;
    fake_libc::advance_seconds(11);
  };
  EXPECT_EQ(-1, fake_libc::exit_status([&] { service->delay_with_callback(60, jump); }));
  EXPECT_EQ(1, calls);
}

// 2147483648 lies before 2147483647, so it fails, and is printed unsigned.
TEST_F(ClockCheckTest, SecondsAreComparedAsSigned32BitValues) {
  fake_libc::script_readings({2147483637});
  service = std::make_unique<timer_service>();
  run_with({2147483647});
  run_with({2147483648, 2147483647});
  EXPECT_THAT(fake_log::lines(), ElementsAre(time_error("2147483648", "2147483647", 0)));
}

// The line needs the debug bit; "timers" keeps its mask until the next service is built.
TEST_F(ClockCheckTest, LevelIsCopiedAtConstructionOnly) {
  g_log_level = 0xFFFFFFF7;
  run_with({999, 1000});
  EXPECT_EQ(1u, fake_log::lines().size());

  service = std::make_unique<timer_service>();
  run_with({999, 1000});
  g_log_level = 0x08;
  run_with({999, 1000});
  EXPECT_EQ(1u, fake_log::lines().size());
}

// A clock that stays 11 seconds ahead ends the process through exit(-1).
TEST_F(ClockCheckDeathTest, ProcessEndsWithStatus255) {
  EXPECT_EXIT(
      {
        fake_libc::let_exit_end_the_process();
        fake_libc::advance_seconds(11);
        service->run_expired();
      },
      testing::ExitedWithCode(255), "");
}

} // namespace vemk
