#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_bus.h"
#include "fakes/fake_libc.h"
#include "ipc/event_ipc_worker.h"
#include "support/buffers.h"
#include "support/logging_test.h"

namespace vemk {
namespace {

using testing::ElementsAre;

class EventIpcPollingTest : public LoggingTest {
protected:
  EventIpcPollingTest() : LoggingTest(0) {
    fake_bus::reset();
    fake_libc::reset();
    worker = std::make_unique<event_ipc_worker>(&bus_to_ws, &ws_to_bus, 2, &run_flag,
                                                &bus_to_ws_bound, &ws_to_bus_bound);
    EXPECT_TRUE(worker->init());
  }

  /// The limits of this many waits, with a step before each.
  std::vector<int> waits(int count) {
    fake_libc::poll_limits_ms.clear();
    while (count > 0) {
      if (!worker->run_once())
        continue;
      worker->pause_before_next_step();
      --count;
    }
    return fake_libc::poll_limits_ms();
  }

  const bool run_flag = true;
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  queue_bound bus_to_ws_bound{&bus_to_ws, &ws_to_bus};
  queue_bound ws_to_bus_bound{&ws_to_bus, &bus_to_ws};
  std::unique_ptr<event_ipc_worker> worker;
};

// 30 waits of 1 ms, then 2, 4, 8, 16, 32 and 64 ms, then 100 ms each.
TEST_F(EventIpcPollingTest, WaitsGrowFromOneTo100MillisecondsWithoutTraffic) {
  EXPECT_EQ(waits(30), std::vector<int>(30, 1));
  EXPECT_THAT(waits(8), ElementsAre(2, 4, 8, 16, 32, 64, 100, 100));
  EXPECT_EQ(waits(100), std::vector<int>(100, 100));
}

// A message from the bus, or one for it, leads back to 30 waits of 1 ms.
TEST_F(EventIpcPollingTest, TrafficMakesTheWaitsShortAgain) {
  waits(40);
  fake_bus::add_message("from bus");
  EXPECT_EQ(waits(30), std::vector<int>(30, 1));
  EXPECT_THAT(waits(2), ElementsAre(2, 4));
  ws_to_bus.push(buffer_of("to bus"));
  EXPECT_EQ(waits(30), std::vector<int>(30, 1));
  EXPECT_THAT(waits(1), ElementsAre(2));
}

// A message for the bus ends a wait of 100 ms at once.
TEST_F(EventIpcPollingTest, QueuedMessageEndsAWait) {
  waits(40);
  const std::int64_t before_us = fake_libc::now_us();
  fake_libc::on_poll([this] { ws_to_bus.push(buffer_of("to bus")); });
  waits(1);
  fake_libc::on_poll(nullptr);
  EXPECT_EQ(fake_libc::now_us(), before_us);
  worker->run_once();
  EXPECT_THAT(fake_bus::sent(), ElementsAre("to bus"));
}

} // namespace
} // namespace vemk
