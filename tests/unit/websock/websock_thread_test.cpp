#include <cstdint>
#include <cstdio>
#include <pthread.h>
#include <string>
#include <vector>

#include "support/worker_thread.h"
#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::Not;

class WebsockThreadTest : public WebsockFixture {
protected:
  /// The library establishes the connection in one step and closes it in the next.
  static void script_short_connection() {
    fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED); });
    fake_lws::script_service([] { fake_lws::deliver(fake_lws::closed_reason); });
  }

  /// The seconds in the lines that announce a wait.
  static std::vector<int> announced_waits() {
    std::vector<int> waits;
    for (const std::string &message : fake_log::messages("websock-worker")) {
      int seconds = 0;
      if (sscanf(message.c_str(), "Delay before connection: %d sec\n", &seconds) == 1)
        waits.push_back(seconds);
    }
    return waits;
  }

  static std::vector<std::int64_t> long_sleeps() {
    std::vector<std::int64_t> found;
    for (const std::int64_t sleep : fake_libc::sleeps_us()) {
      if (sleep != 50000)
        found.push_back(sleep);
    }
    return found;
  }
};

// Steps are 100 ms apart, deinit and init 300 ms; "disconnected" stands twice in between.
TEST_F(WebsockThreadTest, ClosedConnectionIsFollowedByAnotherAttemptOnTheNamedThread) {
  make_worker();
  script_short_connection();
  script_short_connection();
  char name[32] = "";
  fake_lws::on_destroy([&] { pthread_getname_np(pthread_self(), name, sizeof name); });
  run_until_restart(*worker, 2);
  EXPECT_STREQ(name, "websock-roaming");
  EXPECT_THAT(take_to_bus(),
              ElementsAre(disconnected_status, connected_status, disconnected_status,
                          disconnected_status, connected_status, disconnected_status));
  EXPECT_THAT(long_sleeps(), ElementsAre(step_pause_us, step_pause_us, restart_pause_us,
                                         step_pause_us, step_pause_us, restart_pause_us));
  EXPECT_EQ(fake_lws::connect_infos().size(), 2u);
  EXPECT_EQ(worker->context, nullptr);
}

// Five failed attempts: waits 1, 2, 4, 4, 4 and two "disconnected" for each.
TEST_F(WebsockThreadTest, UnreachableServerIsTriedForEverWithGrowingWaits) {
  make_worker(2, 8);
  fake_lws::fail_next_connection();
  for (int i = 0; i < 4; ++i)
    fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_CONNECTION_ERROR); });
  run_until_restart(*worker, 5);
  EXPECT_EQ(fake_lws::connect_infos().size(), 5u);
  // rand() is 0, so the waits are half the delays 2, 4, 8, 8, 8.
  EXPECT_THAT(announced_waits(), ElementsAre(1, 2, 4, 4, 4));
  EXPECT_EQ(take_to_bus(), std::vector<std::string>(10, disconnected_status));
}

// A failed init makes no step: deinit, 300 ms, and the next wait is 4 after 2 seconds.
TEST_F(WebsockThreadTest, ContextThatCannotBeMadeIsTriedAgainWithALongerWait) {
  make_worker(4, 60);
  fake_lws::fail_next_context();
  fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_CONNECTION_ERROR); });
  run_until_restart(*worker, 2);
  EXPECT_THAT(announced_waits(), ElementsAre(2, 4));
  EXPECT_THAT(long_sleeps(), ElementsAre(restart_pause_us, step_pause_us, restart_pause_us));
  EXPECT_EQ(take_to_bus(), std::vector<std::string>(4, disconnected_status));
}

// After pings at 30, 60 and 90 s the next callback ends the connection, and deinit announces it.
TEST_F(WebsockThreadTest, ThirdUnansweredPingRestartsTheWorker) {
  make_worker();
  fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED); });
  for (int seconds = 10; seconds <= 90; seconds += 10)
    fake_lws::script_service([] {
      fake_libc::advance_seconds(10);
      fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
    });
  fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE); });
  run_until_restart(*worker, 1);
  EXPECT_EQ(fake_lws::frames().size(), 3u);
  EXPECT_THAT(fake_log::lines(),
              testing::Contains(
                  line("websock-roaming->There are no 3 pong answer in a row from server\n")));
  EXPECT_THAT(take_to_bus(),
              ElementsAre(disconnected_status, connected_status, disconnected_status));
  EXPECT_FALSE(worker->closed);
}

// 60 seconds without a writeable callback lead to deinit and "disconnected"; nothing was closed.
TEST_F(WebsockThreadTest, WatchdogRestartsTheWorker) {
  make_worker();
  fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED); });
  for (int i = 0; i < 6; ++i)
    fake_lws::script_service([] { fake_libc::advance_seconds(10); });
  run_until_restart(*worker, 1);
  EXPECT_THAT(take_to_bus(),
              ElementsAre(disconnected_status, connected_status, disconnected_status));
  EXPECT_FALSE(worker->closed);
}

// A false run flag gives init, deinit and 300 ms again and again, and no lws_service.
TEST_F(WebsockThreadTest, FalseRunFlagCyclesWithoutSteps) {
  make_worker();
  run_flag = false;
  run_until_restart(*worker, 3);
  EXPECT_EQ(fake_lws::connect_infos().size(), 3u);
  EXPECT_THAT(long_sleeps(), ElementsAre(restart_pause_us, restart_pause_us, restart_pause_us));
  EXPECT_THAT(fake_lws::calls(), Not(testing::Contains(testing::HasSubstr("lws_service"))));
}

// 50 reconnects under constant pushes: no call names a connection or context that is gone.
// Messages come from the bus thread all the time, also while a connection is going away.
TEST_F(WebsockThreadTest, PushesDuringReconnectsTouchOnlyWhatExists) {
  make_worker(1, 1);
  expect_reconnects_under_pushes(*worker);
}

} // namespace
} // namespace vemk
