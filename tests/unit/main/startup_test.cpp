#include "main/startup.h"

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "log/log_module.h"
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

class StartupTest : public testing::Test {
protected:
  StartupTest() {
    fake_process::reset();
    fake_workers::reset();
    fake_log::clear();
    g_log_level = 0;
  }

  ~StartupTest() override { g_log_level = 0; }

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

TEST_F(StartupTest, CompleteConfigurationRunsTheBridgeAfterEveryStepBeforeIt) {
  fake_process::write_pid_file("123\n");
  EXPECT_EQ(0, run_with_file(complete_file));
  EXPECT_THAT(fake_process::events(),
              ElementsAre("init_zandor_logrotate vemk", "srand 1700000000", "thread name main",
                          "fopen vemk.conf r", "fclose vemk.conf", "queue", "queue",
                          "level of vemk-main 13", "fopen PID file r",
                          "system /bin/kill -s TERM 123 2> /dev/null", "fclose PID file",
                          "fopen PID file w+", "fclose PID file", "websock_worker", "ipc_worker",
                          "start ipc_worker", "start websock_worker", "join ipc_worker",
                          "join websock_worker", "~ipc_worker", "~websock_worker",
                          "second queue released", "first queue released"));
}

TEST_F(StartupTest, WithoutAFileThePidFileIsReplacedAndNothingElseStarted) {
  fake_process::write_pid_file("123\n");
  EXPECT_EQ(0, run({}));
  EXPECT_THAT(fake_process::events(),
              ElementsAre("init_zandor_logrotate vemk", "srand 1700000000", "thread name main",
                          "queue", "queue", "level of vemk-main 0", "fopen PID file r",
                          "system /bin/kill -s TERM 123 2> /dev/null", "fclose PID file",
                          "fopen PID file w+", "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

TEST_F(StartupTest, OptionsAloneStartNoWorker) {
  EXPECT_EQ(0, run({"-d", "192.0.2.7", "-P", "8080", "-p", "/roam"}));
  EXPECT_THAT(fake_process::events(), Not(Contains(HasSubstr("worker"))));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

TEST_F(StartupTest, ConfigurationsWithoutACompleteUrlStartNoWorker) {
  for (const char *text :
       {"", "roam_service_url=ws://192.0.2.7/roam\n", "roam_service_url=ws://192.0.2.7:8080\n",
        "roam_service_url=wss://192.0.2.7:8080/roam\n", "log_level=15\n"}) {
    fake_process::reset();
    EXPECT_EQ(0, run_with_file(text)) << text;
    EXPECT_THAT(fake_process::events(),
                AllOf(Contains("queue").Times(2), Contains("fopen PID file w+"),
                      Not(Contains(HasSubstr("worker")))))
        << text;
    EXPECT_EQ("4242\n", fake_process::pid_file()) << text;
  }
}

TEST_F(StartupTest, MissingConfigurationFileStartsNoWorker) {
  EXPECT_EQ(0, run({"-f", "/nonexistent/vemk.conf"}));
  EXPECT_THAT(fake_process::events(), Not(Contains(HasSubstr("worker"))));
  EXPECT_EQ("4242\n", fake_process::pid_file());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(StartupTest, UrlStoredBeforeARefusedOneStillRunsTheBridge) {
  EXPECT_EQ(0, run_with_file(complete_file + "roam_service_url=wss://192.0.2.8:1/x\n"));
  EXPECT_THAT(fake_process::events(), Contains("start websock_worker"));
  EXPECT_EQ("192.0.2.7", fake_workers::websock_arguments().host);
}

TEST_F(StartupTest, WorkersGetTheQueuesInTheOrderOfTheirConstruction) {
  run_with_file(complete_file);
  ASSERT_EQ(2u, fake_process::queues().size());
  const fake_workers::websock_arguments_t websock = fake_workers::websock_arguments();
  const fake_workers::ipc_arguments_t ipc = fake_workers::ipc_arguments();
  EXPECT_EQ(fake_process::queues()[0], websock.from_bus);
  EXPECT_EQ(fake_process::queues()[1], websock.to_bus);
  EXPECT_EQ(fake_process::queues()[0], ipc.from_bus);
  EXPECT_EQ(fake_process::queues()[1], ipc.to_bus);
}

TEST_F(StartupTest, WorkersHaveRunFlagsOfTheirOwnThatAreSet) {
  run_with_file(complete_file);
  const fake_workers::websock_arguments_t websock = fake_workers::websock_arguments();
  const fake_workers::ipc_arguments_t ipc = fake_workers::ipc_arguments();
  EXPECT_NE(websock.run_flag, ipc.run_flag);
  EXPECT_TRUE(websock.run_flag_value);
  EXPECT_TRUE(ipc.run_flag_value);
}

TEST_F(StartupTest, ConfigurationReachesTheWebSocketWorker) {
  run_with_file(complete_file);
  const fake_workers::websock_arguments_t arguments = fake_workers::websock_arguments();
  EXPECT_EQ("192.0.2.7", arguments.host);
  EXPECT_EQ("/roam", arguments.path);
  EXPECT_EQ(8080, arguments.port);
  EXPECT_EQ(5u, arguments.first_delay);
  EXPECT_EQ(300u, arguments.largest_delay);
  EXPECT_EQ(2, fake_workers::ipc_arguments().module_id);
}

TEST_F(StartupTest, LevelOfTheMainModuleIsZeroWithoutALogLevelLine) {
  g_log_level = 9;
  run_with_file("ap_location=x\n");
  EXPECT_THAT(fake_process::events(), Contains("level of vemk-main 0"));
}

TEST_F(StartupTest, ExceptionOfAWorkersConstructionUnwindsWhatWasBuilt) {
  fake_workers::let_ipc_construction_throw();
  EXPECT_THROW(run_with_file(complete_file), std::runtime_error);
  const std::vector<std::string> events = fake_process::events();
  ASSERT_GE(events.size(), 5u);
  EXPECT_THAT(std::vector<std::string>(events.end() - 5, events.end()),
              ElementsAre("websock_worker", "ipc_worker", "~websock_worker",
                          "second queue released", "first queue released"));
}

TEST_F(StartupTest, PidFileStaysOnEveryPath) {
  run({});
  EXPECT_TRUE(fake_process::has_pid_file());
  run_with_file(complete_file);
  EXPECT_TRUE(fake_process::has_pid_file());
}

TEST_F(StartupTest, UnwritablePidFileDoesNotHoldTheBridge) {
  fake_process::make_pid_file_unreachable();
  EXPECT_EQ(0, run_with_file(complete_file));
  EXPECT_THAT(fake_process::events(), Contains("start websock_worker"));
}

TEST_F(StartupDeathTest, BadOptionEndsTheProcessBeforeAnythingIsBuiltOrKilled) {
  EXPECT_EXIT(
      {
        fake_process::write_pid_file("123\n");
        atexit([] {
          for (const std::string &event : fake_process::events())
            fprintf(stderr, "event %s\n", event.c_str());
        });
        run({"-f", fake_process::write_file("vemk.conf", complete_file), "-x"});
      },
      testing::ExitedWithCode(255),
      AllOf(HasSubstr("event thread name main\n"), Not(HasSubstr("event queue")),
            Not(HasSubstr("event fopen")), Not(HasSubstr("event system"))));
}

} // namespace vemk
