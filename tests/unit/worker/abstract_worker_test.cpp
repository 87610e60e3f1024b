#include "worker/abstract_worker.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/logging_test.h"
#include "support/worker_thread.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// Records its operations; each does what the test gave for it.
class recording_worker : public abstract_worker {
public:
  using abstract_worker::abstract_worker;

  bool init() override {
    note(running ? "init while running" : "init");
    return on_init();
  }

  bool run_once() override {
    note("run_once");
    return on_run_once();
  }

  void deinit() override {
    note(running ? "deinit while running" : "deinit");
    on_deinit();
  }

  bool keep_running(const bool *flag) override {
    flags.push_back(flag);
    return on_keep_running(flag);
  }

  /// A loop that does not end as expected must not fill the memory with its record.
  void note(const std::string &event) {
    if (events.size() == 10000)
      _exit(3);
    events.push_back(event);
  }

  void stop_running() { running = false; }
  bool is_running() const { return running; }
  bool was_started() const { return started; }
  bool has_thread() const { return thread.joinable(); }
  timer_service &service() { return timers; }

  std::function<bool()> on_init = [] { return true; };
  std::function<bool()> on_run_once = [] { return false; };
  std::function<void()> on_deinit = [] {};
  std::function<bool(const bool *)> on_keep_running = [](const bool *flag) { return *flag; };
  std::vector<std::string> events;
  std::vector<const bool *> flags;
};

/// Passes the time between its steps in a way of its own.
class waiting_worker : public recording_worker {
public:
  using recording_worker::recording_worker;

  void pause_before_next_step() override { note("wait"); }
};

/// Sleeps are recorded with the operations, and the worker's thread ends in its last restart pause:
/// the loop has no end of its own.
class AbstractWorkerTest : public LoggingTest {
protected:
  AbstractWorkerTest() : LoggingTest(0) {
    fake_libc::reset();
    make_worker(100000);
  }

  ~AbstractWorkerTest() override { fake_libc::reset(); }

  void make_worker(std::int32_t step_pause) {
    worker =
        std::make_unique<recording_worker>(&run_flag, "recording", step_pause, restart_pause_us);
  }

  /// The worker's operations and sleeps over this many rounds of its loop.
  std::vector<std::string> events_of(int rounds) {
    run_until_restart(*worker, rounds, [this](std::int64_t sleep_us) {
      worker->note("sleep " + std::to_string(sleep_us));
    });
    return worker->events;
  }

  /// run_once() that returns the results in turn and restarts the worker with the last.
  std::function<bool()> steps(const std::vector<bool> &results) {
    return [this, results, count = std::size_t{0}]() mutable {
      const bool result = results[count];
      count = (count + 1) % results.size();
      if (count == 0)
        worker->stop_running();
      return result;
    };
  }

  bool run_flag = true;
  std::unique_ptr<recording_worker> worker;
};

class AbstractWorkerDeathTest : public AbstractWorkerTest {
protected:
  AbstractWorkerDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  /// For the child process: standard output alone goes where the test can match it, and exit() is
  /// the real one.
  void run_in_child() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    fake_libc::let_exit_end_the_process();
    worker->start();
    worker->join();
  }

  /// The loop ends the process with its message: no log line and no deinit() is told beside it.
  void expect_the_message_alone() {
    g_log_level = 0xFFFF;
    worker->on_deinit = [] { fputs("deinit called\n", stdout); };
    EXPECT_EXIT(
        {
          atexit([] {
            for (const std::string &line : fake_log::lines())
              printf("logged %s", line.c_str());
          });
          run_in_child();
        },
        testing::ExitedWithCode(255),
        testing::StrEq("Unhandled exception at worker 'recording'\n"));
  }

  void expect_termination() {
    EXPECT_EXIT(run_in_child(), testing::KilledBySignal(SIGABRT), Not(HasSubstr("Unhandled")));
  }
};

} // namespace

// Unstarted: no thread, no operation called, two joins return. start sets started, join waits.
TEST_F(AbstractWorkerTest, StartSetsStartedAndJoinWaitsForTheThread) {
  worker->join();
  worker->join();
  EXPECT_FALSE(worker->was_started());
  EXPECT_FALSE(worker->is_running());
  EXPECT_FALSE(worker->has_thread());
  EXPECT_THAT(worker->events, IsEmpty());
  worker->on_init = [] { return false; };
  EXPECT_THAT(events_of(1), ElementsAre("init", "deinit", "sleep 300000"));
  EXPECT_TRUE(worker->was_started());
  EXPECT_FALSE(worker->has_thread());
}

// The step pause is 100000 us and the restart pause 300000 us.
TEST_F(AbstractWorkerTest, UsualPausesAreATenthAndThreeTenthsOfASecond) {
  EXPECT_EQ(100000, abstract_worker::usual_step_pause_us);
  EXPECT_EQ(300000, abstract_worker::usual_restart_pause_us);
}

// The constructor reads the clock once and gives "timers" the mask of g_log_level.
TEST_F(AbstractWorkerTest, ConstructionMakesATimerServiceOfTheConfiguredLevel) {
  fake_libc::reset();
  g_log_level = 0x08;
  make_worker(0);
  EXPECT_EQ(1, fake_libc::clock_reads());
  fake_libc::script_readings({999, 1000});
  worker->service().run_expired();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(log_line("timers", "time_monotonic: Time error, need restart, expired "
                                             "[999] [1000] cnt 0\n")));
}

// A pending timer's callback is destroyed with the worker.
TEST_F(AbstractWorkerTest, DestructionReleasesPendingTimers) {
  const auto token = std::make_shared<int>();
  worker->service().add_timer([token] {}, 0, 60);
  worker.reset();
  EXPECT_EQ(1, token.use_count());
}

// init false: deinit, 300000 us, init again until it is true; only then is keep_running asked.
TEST_F(AbstractWorkerTest, FailingInitTearsDownAndPausesBeforeTheNextTry) {
  worker->on_init = [count = 0]() mutable { return ++count == 3; };
  worker->on_run_once = steps({false});
  EXPECT_THAT(events_of(3),
              ElementsAre("init", "deinit", "sleep 300000", "init", "deinit", "sleep 300000",
                          "init", "run_once", "deinit", "sleep 300000"));
  EXPECT_THAT(worker->flags, ElementsAre(&run_flag));
}

// A sleep of 100000 us follows each step that returns true, the last one too, and no other step.
TEST_F(AbstractWorkerTest, StepsThatReturnTrueAreFollowedByTheStepPause) {
  for (const std::vector<bool> &results :
       {std::vector<bool>(3, false), std::vector<bool>(2, true), {false, true, false}}) {
    make_worker(100000);
    worker->on_run_once = steps(results);
    std::vector<std::string> expected = {"init"};
    for (const bool result : results) {
      expected.emplace_back("run_once");
      if (result)
        expected.emplace_back("sleep 100000");
    }
    expected.insert(expected.end(), {"deinit", "sleep 300000"});
    EXPECT_EQ(events_of(1), expected);
  }
}

// With 1 a step that returns true is followed by a sleep of 1 us, with 0, -1 and -2^31 by none.
TEST_F(AbstractWorkerTest, StepPauseOfZeroOrLessIsNone) {
  make_worker(1);
  worker->on_run_once = steps({true});
  EXPECT_THAT(events_of(1), ElementsAre("init", "run_once", "sleep 1", "deinit", "sleep 300000"));
  for (const std::int32_t pause : {0, -1, -2147483647 - 1}) {
    make_worker(pause);
    worker->on_run_once = steps({true, true});
    EXPECT_THAT(events_of(1), ElementsAre("init", "run_once", "run_once", "deinit", "sleep 300000"))
        << pause;
  }
}

// A worker's own pause takes the place of the sleep, and of none with a step pause of 0.
TEST_F(AbstractWorkerTest, PauseBetweenStepsMayBeReplaced) {
  for (const std::int32_t pause : {100000, 0}) {
    worker = std::make_unique<waiting_worker>(&run_flag, "waiting", pause, restart_pause_us);
    worker->on_run_once = steps({true, false});
    if (pause == 0)
      EXPECT_THAT(events_of(1),
                  ElementsAre("init", "run_once", "run_once", "deinit", "sleep 300000"));
    else
      EXPECT_THAT(events_of(1),
                  ElementsAre("init", "run_once", "wait", "run_once", "deinit", "sleep 300000"));
  }
}

// Two steps take three questions with &run_flag; at the false one deinit follows.
TEST_F(AbstractWorkerTest, KeepRunningIsAskedWithTheRunFlagBeforeEveryStep) {
  int asked = 0;
  worker->on_keep_running = [&](const bool *) {
    worker->note("keep_running");
    return ++asked <= 2;
  };
  EXPECT_THAT(events_of(1),
              ElementsAre("init", "keep_running", "run_once", "keep_running", "run_once",
                          "keep_running", "deinit while running", "sleep 300000"));
  EXPECT_THAT(worker->flags, ElementsAre(&run_flag, &run_flag, &run_flag));
}

// A null run flag is handed on to keep_running and not read by the base.
TEST_F(AbstractWorkerTest, RunFlagMayBeNullWhereKeepRunningIgnoresIt) {
  worker = std::make_unique<recording_worker>(nullptr, "recording", 0, restart_pause_us);
  worker->on_keep_running = [](const bool *) { return false; };
  events_of(1);
  EXPECT_THAT(worker->flags, ElementsAre(nullptr));
}

// The step that clears it still gets its pause, then deinit follows with running set.
TEST_F(AbstractWorkerTest, ClearedRunFlagEndsTheStepsAfterTheCurrentOne) {
  worker->on_run_once = [this] {
    run_flag = false;
    return true;
  };
  EXPECT_THAT(events_of(1), ElementsAre("init", "run_once", "sleep 100000", "deinit while running",
                                        "sleep 300000"));
}

// After it come deinit, 300000 us and init, and keep_running is asked once a round.
TEST_F(AbstractWorkerTest, StepThatClearsRunningForcesARestartWithoutAnotherQuestion) {
  worker->on_run_once = steps({false});
  EXPECT_THAT(events_of(2), ElementsAre("init", "run_once", "deinit", "sleep 300000", "init",
                                        "run_once", "deinit", "sleep 300000"));
  EXPECT_EQ(2u, worker->flags.size());
}

// It is true in the step, in deinit and in the pause, and false in the next init.
// A false run flag gives init, one keep_running, deinit, 300000 us, and no step.
TEST_F(AbstractWorkerTest, RunningIsTheResultOfInitAndIsClearedAfterTheRestartPause) {
  bool running_in_step = false;
  worker->on_run_once = [&] {
    running_in_step = worker->is_running();
    run_flag = false;
    return false;
  };
  EXPECT_THAT(events_of(3), ElementsAre("init", "run_once", "deinit while running", "sleep 300000",
                                        "init", "deinit while running", "sleep 300000", "init",
                                        "deinit while running", "sleep 300000"));
  EXPECT_EQ(worker->flags, std::vector<const bool *>(4, &run_flag));
  EXPECT_TRUE(running_in_step);
  EXPECT_TRUE(worker->is_running());
}

// init, keep_running, run_once and deinit all run on one thread that is not the starter's.
TEST_F(AbstractWorkerTest, OperationsRunOnTheWorkersOwnThread) {
  std::vector<pthread_t> threads;
  const auto note = [&] { threads.push_back(pthread_self()); };
  worker->on_init = [&] {
    note();
    return true;
  };
  worker->on_run_once = [&] {
    note();
    worker->stop_running();
    return false;
  };
  worker->on_keep_running = [&](const bool *) {
    note();
    return true;
  };
  worker->on_deinit = note;
  events_of(1);
  ASSERT_EQ(4u, threads.size());
  for (const pthread_t thread : threads) {
    EXPECT_TRUE(pthread_equal(threads.front(), thread));
    EXPECT_FALSE(pthread_equal(pthread_self(), thread));
  }
}

// "ipc" and "websock-roaming" are kept, "websock-roaming-2" becomes "websock-roaming".
TEST_F(AbstractWorkerTest, ThreadCarriesTheWorkersNameCutTo15Characters) {
  const std::pair<std::string, std::string> names[] = {
      {"ipc", "ipc"},
      {"websock-roaming", "websock-roaming"},
      {"websock-roaming-2", "websock-roaming"},
      {"", ""},
  };
  for (const auto &[given, expected] : names) {
    worker = std::make_unique<recording_worker>(&run_flag, given, 0, restart_pause_us);
    char thread_name[16] = "unread";
    worker->on_init = [&] {
      prctl(PR_GET_NAME, thread_name);
      return false;
    };
    events_of(1);
    EXPECT_EQ(expected, thread_name);
  }
}

// "Unhandled exception at worker 'recording'\n" is all of standard output; 255, no deinit, no log.
TEST_F(AbstractWorkerDeathTest, ExceptionOfAStepEndsTheProcessWithAMessageAndNoTearDown) {
  worker->on_run_once = []() -> bool { throw std::runtime_error("step"); };
  expect_the_message_alone();
}

// A thrown 42 ends the process like an exception object: message, status 255, no deinit.
TEST_F(AbstractWorkerDeathTest, AnyThrownTypeIsCaughtInAStep) {
  worker->on_run_once = []() -> bool { throw 42; };
  expect_the_message_alone();
}

// One thrown by the pause after a step gives the message, status 255 and no deinit.
TEST_F(AbstractWorkerDeathTest, ExceptionOfTheStepPauseCountsAsTheSteps) {
  worker->on_run_once = [] { return true; };
  fake_libc::on_sleep([](std::int64_t) { throw std::runtime_error("pause"); });
  expect_the_message_alone();
}

// It ends the process by SIGABRT, with nothing said about an unhandled exception.
TEST_F(AbstractWorkerDeathTest, ExceptionOfInitTerminatesWithoutTheMessage) {
  worker->on_init = []() -> bool { throw std::runtime_error("init"); };
  expect_termination();
}

// It ends the process by SIGABRT although it is asked between steps that are guarded.
TEST_F(AbstractWorkerDeathTest, ExceptionOfKeepRunningTerminatesWithoutTheMessage) {
  worker->on_keep_running = [](const bool *) -> bool { throw std::runtime_error("keep_running"); };
  expect_termination();
}

// It ends the process by SIGABRT, after an init that returned false.
TEST_F(AbstractWorkerDeathTest, ExceptionOfDeinitTerminatesWithoutTheMessage) {
  worker->on_init = [] { return false; };
  worker->on_deinit = [] { throw std::runtime_error("deinit"); };
  expect_termination();
}

// One thrown by the sleep of 300000 us ends the process by SIGABRT.
TEST_F(AbstractWorkerDeathTest, ExceptionOfTheRestartPauseTerminatesWithoutTheMessage) {
  worker->on_init = [] { return false; };
  fake_libc::on_sleep([](std::int64_t) { throw std::runtime_error("pause"); });
  expect_termination();
}

// A second start, or destroying it, while its thread waits ends the process by SIGABRT.
TEST_F(AbstractWorkerDeathTest, SecondStartAndDestructionOfAnUnjoinedWorkerTerminate) {
  worker->on_init = [] {
    pause();
    return false;
  };
  EXPECT_EXIT((worker->start(), worker.reset()), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT((worker->start(), worker->start()), testing::KilledBySignal(SIGABRT), "");
}

} // namespace vemk
