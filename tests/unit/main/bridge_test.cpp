#include "main/bridge.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/main/fake_process.h"
#include "unit/main/fake_workers.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class BridgeTest : public testing::Test {
protected:
  BridgeTest() {
    fake_process::reset();
    fake_workers::reset();
    strcpy(cfg.host, "192.0.2.7");
    strcpy(cfg.path, "/roam");
    strcpy(cfg.ap_location, "default-domain");
    cfg.port = 8080;
    cfg.url_valid = true;
    cfg.initial_connection_delay = 5;
    cfg.max_connection_delay = 300;
  }

  void run() { run_bridge(cfg, bus_run_flag, first_queue, second_queue); }

  websock_cfg_t cfg{};
  const bool bus_run_flag = true;
  message_queue_t first_queue;
  message_queue_t second_queue;
};

} // namespace

// websock_worker is built first and destroyed last; ipc_worker is started and joined first.
TEST_F(BridgeTest, WorkersAreBuiltStartedJoinedAndDestroyedInOrder) {
  run();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("websock_worker", "ipc_worker", "start ipc_worker",
                          "start websock_worker", "join ipc_worker", "join websock_worker",
                          "~ipc_worker", "~websock_worker"));
}

// Each event-driven worker stands behind its base; start and end keep the order of the others.
TEST_F(BridgeTest, EventPacingBuildsTheEventDrivenWorkersInTheSameOrder) {
  cfg.event_pacing = true;
  run();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("websock_worker", "event_websock_worker", "ipc_worker",
                          "event_ipc_worker", "start ipc_worker", "start websock_worker",
                          "join ipc_worker", "join websock_worker", "~ipc_worker",
                          "~websock_worker"));
}

// Both get the bus-to-service queue's bound, then the other's; with steps there are none.
TEST_F(BridgeTest, EventDrivenWorkersShareABoundForEachQueue) {
  run();
  EXPECT_THAT(fake_workers::websock_arguments().bounds, IsEmpty());
  cfg.event_pacing = true;
  run();
  for (const auto &bounds :
       {fake_workers::websock_arguments().bounds, fake_workers::ipc_arguments().bounds})
    EXPECT_THAT(bounds,
                ElementsAre(Pair(&first_queue, &second_queue), Pair(&second_queue, &first_queue)));
}

// For either pacing both queues, host, path, port, &url_valid, 5, 300, false, and whole_messages.
TEST_F(BridgeTest, WebSocketWorkerGetsQueuesUrlFlagAndDelays) {
  for (const auto &[whole_messages, event_pacing] :
       {std::pair(false, false), {true, false}, {false, true}, {true, true}}) {
    cfg.whole_messages = whole_messages;
    cfg.event_pacing = event_pacing;
    run();
    const fake_workers::websock_arguments_t arguments = fake_workers::websock_arguments();
    EXPECT_EQ(&first_queue, arguments.from_bus);
    EXPECT_EQ(&second_queue, arguments.to_bus);
    EXPECT_EQ("192.0.2.7", arguments.host);
    EXPECT_EQ("/roam", arguments.path);
    EXPECT_EQ(8080, arguments.port);
    EXPECT_EQ(&cfg.url_valid, arguments.run_flag);
    EXPECT_EQ(5u, arguments.first_delay);
    EXPECT_EQ(300u, arguments.largest_delay);
    EXPECT_FALSE(arguments.without_lws_binding);
    EXPECT_EQ(whole_messages, arguments.only_whole_messages);
  }
}

// It gets both queues in their order, module identifier 2 and the address of its own run flag.
TEST_F(BridgeTest, BusWorkerGetsTheSameQueuesItsModuleAndItsFlag) {
  for (const bool event_pacing : {false, true}) {
    cfg.event_pacing = event_pacing;
    run();
    const fake_workers::ipc_arguments_t arguments = fake_workers::ipc_arguments();
    EXPECT_EQ(&first_queue, arguments.from_bus);
    EXPECT_EQ(&second_queue, arguments.to_bus);
    EXPECT_EQ(2, arguments.module_id);
    EXPECT_EQ(&bus_run_flag, arguments.run_flag);
  }
}

// When ipc_worker's constructor throws, websock_worker is destroyed; nothing is ever started.
// When websock_worker's throws, ipc_worker is never built.
TEST_F(BridgeTest, ExceptionOfAConstructionLeavesNothingRunning) {
  fake_workers::let_ipc_construction_throw();
  EXPECT_THROW(run(), std::runtime_error);
  EXPECT_THAT(fake_process::events(),
              ElementsAre("websock_worker", "ipc_worker", "~websock_worker"));
  fake_process::reset();
  fake_workers::let_websock_construction_throw();
  EXPECT_THROW(run(), std::runtime_error);
  EXPECT_THAT(fake_process::events(), ElementsAre("websock_worker"));
}

} // namespace vemk
