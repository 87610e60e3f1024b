#include "main/bridge.h"

#include <cstring>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/main/fake_process.h"
#include "unit/main/fake_workers.h"

namespace vemk {

namespace {

using testing::ElementsAre;

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

// Both queues in their order, host, path, port, &url_valid, 5, 300, false, and whole_messages.
TEST_F(BridgeTest, WebSocketWorkerGetsQueuesUrlFlagAndDelays) {
  for (const bool whole_messages : {false, true}) {
    cfg.whole_messages = whole_messages;
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
  run();
  const fake_workers::ipc_arguments_t arguments = fake_workers::ipc_arguments();
  EXPECT_EQ(&first_queue, arguments.from_bus);
  EXPECT_EQ(&second_queue, arguments.to_bus);
  EXPECT_EQ(2, arguments.module_id);
  EXPECT_EQ(&bus_run_flag, arguments.run_flag);
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
