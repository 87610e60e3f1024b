#include "main/startup.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/joined.h"
#include "support/logging_test.h"
#include "unit/main/fake_process.h"
#include "unit/main/fake_workers.h"

namespace vemk {

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using texts_t = std::vector<std::string>;

// The parts of a start.
const texts_t opening = {"init_zandor_logrotate vemk", "srand 1700000000", "thread name main"};
const texts_t reading = {"fopen vemk.conf r", "fclose vemk.conf"};
const texts_t pid_file_steps = {"open PID file r", "system /bin/kill -s TERM 123 2> /dev/null",
                                "fclose PID file", "open PID file w+", "fclose PID file"};
const texts_t release = {"service-to-bus queue released", "bus-to-service queue released"};

class StartupTest : public LoggingTest {
protected:
  StartupTest() : LoggingTest(0) {
    fake_process::reset();
    fake_workers::reset();
  }

  static int run(std::initializer_list<std::string> options) {
    std::vector<std::string> texts{"vemk"};
    texts.insert(texts.end(), options);
    std::vector<char *> arguments;
    for (std::string &text : texts)
      arguments.push_back(text.data());
    arguments.push_back(nullptr);
    return run_daemon(static_cast<int>(texts.size()), arguments.data());
  }

  static int run_with_file(const std::string &text) {
    return run({"-f", fake_process::write_file("vemk.conf", text)});
  }

  /// In a process of its own, as it were: its PID file is a new one.
  static void expect_no_worker(const std::function<int()> &start) {
    fake_process::reset();
    EXPECT_EQ(0, start());
    EXPECT_THAT(fake_process::events(),
                AllOf(Contains("queue").Times(2), Contains("open PID file w+"),
                      Not(Contains(HasSubstr("worker")))));
    EXPECT_EQ("4242\n", fake_process::pid_file());
  }
};

class StartupDeathTest : public StartupTest {
protected:
  StartupDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

const std::string complete_file = "roam_service_url=ws://192.0.2.7:8080/roam\n"
                                  "initial_connection_delay=5\n"
                                  "max_connection_delay=300\n"
                                  "log_level=13\n";

} // namespace

// The order is log, srand(time), thread name, file, two queues, mask, PID file, two workers.
TEST_F(StartupTest, CompleteConfigurationRunsTheBridgeAfterEveryStepBeforeIt) {
  fake_process::write_pid_file("123\n");
  EXPECT_EQ(0, run_with_file(complete_file));
  EXPECT_EQ(fake_process::events(),
            joined({opening,
                    reading,
                    {"queue", "queue", "level of vemk-main 13"},
                    pid_file_steps,
                    {"websock_worker", "ipc_worker", "start ipc_worker", "start websock_worker",
                     "join ipc_worker", "join websock_worker", "~ipc_worker", "~websock_worker"},
                    release}));
}

// Without -f both queues are built and destroyed, PID 123 killed, no worker built; 0 is returned.
TEST_F(StartupTest, WithoutAFileThePidFileIsReplacedAndNothingElseStarted) {
  fake_process::write_pid_file("123\n");
  EXPECT_EQ(0, run({}));
  EXPECT_EQ(fake_process::events(),
            joined({opening, {"queue", "queue", "level of vemk-main 0"}, pid_file_steps, release}));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// No URL, no port, no "/", scheme wss, no file, -d, -P and -p: queues, PID file, no worker, 0.
TEST_F(StartupTest, ConfigurationsWithoutACompleteUrlStartNoWorker) {
  for (const char *text :
       {"", "roam_service_url=ws://192.0.2.7/roam\n", "roam_service_url=ws://192.0.2.7:8080\n",
        "roam_service_url=wss://192.0.2.7:8080/roam\n", "log_level=15\n"})
    expect_no_worker([&] { return run_with_file(text); });
  fake_log::clear();
  expect_no_worker([] { return run({"-f", "/nonexistent/vemk.conf"}); });
  expect_no_worker([] { return run({"-d", "192.0.2.7", "-P", "8080", "-p", "/roam"}); });
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// A refused scheme ends the reading with the file closed, before the queues are built.
TEST_F(StartupTest, FileOfARefusedSchemeIsClosed) {
  EXPECT_EQ(0, run_with_file("roam_service_url=wss://192.0.2.7:8080/roam\nlog_level=15\n"));
  const std::vector<std::string> events = fake_process::events();
  ASSERT_GE(events.size(), 6u);
  EXPECT_THAT(std::vector<std::string>(events.begin() + 2, events.begin() + 6),
              ElementsAre("thread name main", "fopen vemk.conf r", "fclose vemk.conf", "queue"));
}

// With log_level=65535 and every step taken, start-up and assembly write no log line of their own.
TEST_F(StartupTest, WholeStartLogsNothing) {
  fake_process::write_pid_file("none\n");
  fake_process::set_system_result(-1);
  EXPECT_EQ(0, run_with_file(complete_file + "log_level=65535\n"));
  EXPECT_THAT(fake_process::events(), Contains("level of vemk-main 65535"));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// A ws URL followed by a wss URL: the workers run with the first one's host.
TEST_F(StartupTest, UrlStoredBeforeARefusedOneStillRunsTheBridge) {
  EXPECT_EQ(0, run_with_file(complete_file + "roam_service_url=wss://192.0.2.8:1/x\n"));
  EXPECT_THAT(fake_process::events(), Contains("start websock_worker"));
  EXPECT_EQ("192.0.2.7", fake_workers::websock_arguments().host);
}

// Both get the queues, bus-to-WebSocket first, a run flag of their own, set, and their settings.
TEST_F(StartupTest, WorkersGetTheQueuesTheirRunFlagsAndTheConfiguration) {
  run_with_file(complete_file);
  ASSERT_EQ(2u, fake_process::queues().size());
  const fake_workers::websock_arguments_t websock = fake_workers::websock_arguments();
  const fake_workers::ipc_arguments_t ipc = fake_workers::ipc_arguments();
  EXPECT_EQ(fake_process::queues()[0], websock.from_bus);
  EXPECT_EQ(fake_process::queues()[1], websock.to_bus);
  EXPECT_EQ(fake_process::queues()[0], ipc.from_bus);
  EXPECT_EQ(fake_process::queues()[1], ipc.to_bus);
  EXPECT_NE(websock.run_flag, ipc.run_flag);
  EXPECT_TRUE(websock.run_flag_value);
  EXPECT_TRUE(ipc.run_flag_value);
  EXPECT_EQ("192.0.2.7", websock.host);
  EXPECT_EQ("/roam", websock.path);
  EXPECT_EQ(8080, websock.port);
  EXPECT_EQ(5u, websock.first_delay);
  EXPECT_EQ(300u, websock.largest_delay);
  EXPECT_EQ(2, ipc.module_id);
}

// "vemk-main" gets mask 0 from a file without "log_level=", whatever g_log_level was before.
TEST_F(StartupTest, LevelOfTheMainModuleIsZeroWithoutALogLevelLine) {
  g_log_level = 9;
  run_with_file("ap_location=x\n");
  EXPECT_THAT(fake_process::events(), Contains("level of vemk-main 0"));
}

// ~websock_worker, the service-to-bus queue, the other one, and the exception leaves the start.
TEST_F(StartupTest, ExceptionOfAWorkersConstructionUnwindsWhatWasBuilt) {
  fake_workers::let_ipc_construction_throw();
  EXPECT_THROW(run_with_file(complete_file), std::runtime_error);
  const std::vector<std::string> events = fake_process::events();
  ASSERT_GE(events.size(), 5u);
  EXPECT_THAT(std::vector<std::string>(events.end() - 5, events.end()),
              ElementsAre("websock_worker", "ipc_worker", "~websock_worker",
                          "service-to-bus queue released", "bus-to-service queue released"));
}

// The exception leaves the start, the first queue destroyed if built, the PID file untouched.
TEST_F(StartupTest, ExceptionOfAQueuesConstructionEndsTheStart) {
  for (const std::size_t nth : {1u, 2u}) {
    fake_process::reset();
    fake_process::write_pid_file("123\n");
    fake_process::let_queue_construction_throw(nth);
    EXPECT_THROW(run_with_file(complete_file), std::runtime_error);
    const texts_t end = nth == 1 ? texts_t{} : texts_t{"queue", "bus-to-service queue released"};
    EXPECT_EQ(fake_process::events(), joined({opening, reading, end}));
    EXPECT_EQ("123\n", fake_process::pid_file());
  }
}

// It holds "4242\n" after a start with workers, also one that an exception ends.
TEST_F(StartupTest, PidFileStaysOnEveryPath) {
  run_with_file(complete_file);
  EXPECT_EQ("4242\n", fake_process::pid_file());
  fake_workers::let_websock_construction_throw();
  EXPECT_THROW(run_with_file(complete_file), std::runtime_error);
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// When the PID file can neither be read nor written, the workers are started all the same.
TEST_F(StartupTest, UnwritablePidFileDoesNotHoldTheBridge) {
  fake_process::make_pid_file_unreachable();
  EXPECT_EQ(0, run_with_file(complete_file));
  EXPECT_THAT(fake_process::events(), Contains("start websock_worker"));
}

// "-f FILE -x" ends with status 255 after the thread's name: no file read, queue built or kill run.
TEST_F(StartupDeathTest, BadOptionEndsTheProcessBeforeAnythingIsBuiltOrKilled) {
  EXPECT_EXIT(
      {
        fake_process::write_pid_file("123\n");
        atexit([] {
          fputs("events:", stderr);
          for (const std::string &event : fake_process::events())
            fprintf(stderr, " %s;", event.c_str());
          fputs("\n", stderr);
        });
        run({"-f", fake_process::write_file("vemk.conf", complete_file), "-x"});
      },
      testing::ExitedWithCode(255),
      HasSubstr("events: init_zandor_logrotate vemk; srand 1700000000; thread name main;\n"));
}

} // namespace vemk
