#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/fake_lws.h"
#include "unit/websock/websock_fixture.h"
#include "unit/websock/wrapped_libc.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class WebsockDelayTest : public WebsockFixture {
protected:
  /// The delays that rand's smallest and largest value give at the worker's present state, and the
  /// line that names the range.
  struct range_t {
    std::uint32_t first;
    std::uint32_t last;
    std::string log_line;
  };

  range_t draw_range(std::int32_t span) {
    const std::uint32_t before = worker->current_delay;
    wrapped_libc::script_rand({0, span - 1});
    range_t range{};
    range.first = worker->next_delay();
    const std::uint32_t after = worker->current_delay;
    worker->current_delay = before;
    fake_log::clear();
    range.last = worker->next_delay();
    EXPECT_EQ(worker->current_delay, after);
    range.log_line = fake_log::lines().at(0);
    return range;
  }

  void expect_range(std::uint32_t low, std::uint32_t high) {
    const range_t range = draw_range(static_cast<std::int32_t>(high - low));
    EXPECT_EQ(range.first, low);
    EXPECT_EQ(range.last, high - 1);
    EXPECT_EQ(range.log_line, line("Generate delay into [" + std::to_string(low) + ";" +
                                   std::to_string(high) + ") range\n"));
  }
};

// The delay.

// With delay 2: windows [1;3), [2;6), [4;12); the stored delay is 4, 8, 16 after each draw.
TEST_F(WebsockDelayTest, DelayIsDrawnFromTheValueBeforeTheDoubling) {
  make_worker(2, 60);
  expect_range(1, 3);
  EXPECT_EQ(worker->current_delay, 4u);
  expect_range(2, 6);
  EXPECT_EQ(worker->current_delay, 8u);
  expect_range(4, 12);
  EXPECT_EQ(worker->current_delay, 16u);
}

// 10 and 60: [5;15), [10;30), [20;60), then [30;90) for ever while 60 is stored.
TEST_F(WebsockDelayTest, CapAppliesToTheStoredValueAndNotToTheDrawnDelay) {
  make_worker(10, 60);
  expect_range(5, 15);
  expect_range(10, 30);
  expect_range(20, 60);
  EXPECT_EQ(worker->current_delay, 60u);
  for (int i = 0; i < 3; ++i) {
    expect_range(30, 90);
    EXPECT_EQ(worker->current_delay, 60u);
  }
}

// After five growing delays an establishment makes the next window [5;15) again.
TEST_F(WebsockDelayTest, EstablishmentBringsTheInitialDelayBack) {
  make_worker(10, 60);
  for (int i = 0; i < 5; ++i)
    worker->next_delay();
  worker->_connect();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(worker->current_delay, 10u);
  expect_range(5, 15);
}

// A connection attempt that has only started leaves the stored delay at 20.
TEST_F(WebsockDelayTest, AttemptThatOnlyStartsLeavesTheDelayGrowing) {
  make_worker(10, 60);
  worker->next_delay();
  worker->_connect();
  EXPECT_EQ(worker->current_delay, 20u);
}

// Initial delay 0: the window is [1;3) and 2 is stored; from 2 the window is [1;3) again.
TEST_F(WebsockDelayTest, InitialDelayZeroStartsWithOneOrTwoSeconds) {
  make_worker(0, 60);
  EXPECT_EQ(worker->current_delay, 0u);
  expect_range(1, 3);
  EXPECT_EQ(worker->current_delay, 2u);
  expect_range(1, 3);
  EXPECT_EQ(worker->current_delay, 4u);
}

// Initial delay 0, maximum 1: [1;3) at first, 1 stored, then always 0 seconds of [0;1).
TEST_F(WebsockDelayTest, InitialDelayZeroIsCappedByASmallerMaximum) {
  make_worker(0, 1);
  expect_range(1, 3);
  EXPECT_EQ(worker->current_delay, 1u);
  expect_range(0, 1);
  EXPECT_EQ(worker->current_delay, 1u);
}

// With both delays 0 every window is [1;3) and the stored delay stays 0.
TEST_F(WebsockDelayTest, BothDelaysZeroGiveOneOrTwoSecondsForEver) {
  make_worker(0, 0);
  for (int i = 0; i < 4; ++i) {
    expect_range(1, 3);
    EXPECT_EQ(worker->current_delay, 0u);
  }
}

// 100 with maximum 60: the first window is [50;150), then 60 is stored.
TEST_F(WebsockDelayTest, InitialDelayAboveTheMaximumCountsOnce) {
  make_worker(100, 60);
  expect_range(50, 150);
  EXPECT_EQ(worker->current_delay, 60u);
}

// Delay 7 gives the window [3;10) and stores 14.
TEST_F(WebsockDelayTest, OddDelayIsHalvedTowardsZero) {
  make_worker(7, 60);
  expect_range(3, 10);
  EXPECT_EQ(worker->current_delay, 14u);
}

// RAND_MAX is taken modulo the span 10, plus 5.
TEST_F(WebsockDelayTest, RandomValueIsReducedToTheSpan) {
  make_worker(10, 60);
  wrapped_libc::script_rand({RAND_MAX});
  EXPECT_EQ(worker->next_delay(), static_cast<std::uint32_t>(RAND_MAX % 10 + 5));
}

// Delays from 0x40000000 on wrap in 32 bits: signed remainder, unsigned doubling and log line.
TEST_F(WebsockDelayTest, HugeDelaysWrapAsThirtyTwoBitValues) {
  struct case_t {
    std::uint32_t delay;
    std::uint32_t drawn;
    std::uint32_t doubled;
    const char *range;
  };
  // rand() is 5; the remainder takes the sign of 5.
  const case_t cases[] = {
      {0x40000000u, 5u + 0x20000000u, 0x80000000u, "[536870912;1610612736)"},
      {0x7FFFFFFFu, 5u + 0x3FFFFFFFu, 0xFFFFFFFEu, "[1073741823;3221225470)"},
      {0x80000000u, 5u + 0xC0000000u, 0u, "[3221225472;1073741824)"},
      {0xFFFFFFFEu, 1u + 0xFFFFFFFFu, 0xFFFFFFFCu, "[4294967295;4294967293)"},
      {0xFFFFFFFFu, 0u, 0xFFFFFFFEu, "[0;4294967295)"},
  };
  for (const case_t &c : cases) {
    SCOPED_TRACE(c.delay);
    make_worker(c.delay, 0xFFFFFFFFu);
    fake_log::clear();
    wrapped_libc::script_rand({5});
    EXPECT_EQ(worker->next_delay(), c.drawn);
    EXPECT_EQ(worker->current_delay, c.doubled);
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(line(std::string("Generate delay into ") + c.range + " range\n")));
  }
}

// A drawn delay of -1073741824 seconds sleeps one 50 ms poll and answers a request in it.
TEST_F(WebsockDelayTest, NegativeDelayStillPollsTheQueueOnce) {
  make_worker(0x80000000u, 0xFFFFFFFFu);
  push_from_bus(status_request);
  worker->wait_before_connect();
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(50000));
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
  EXPECT_THAT(fake_log::lines(), Contains(line("Delay before connection: -1073741824 sec\n")));
}

// The wait.

// 2 seconds are 40 sleeps of 50 ms; two lines name window and delay.
TEST_F(WebsockDelayTest, WaitLogsItsDelayAndPollsEveryFiftyMilliseconds) {
  make_worker(2, 60);
  wrapped_libc::script_rand({1});
  worker->wait_before_connect();
  EXPECT_THAT(fake_libc::sleeps_us(), testing::AllOf(testing::SizeIs(40), testing::Each(50000)));
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("Generate delay into [1;3) range\n"),
                                             line("Delay before connection: 2 sec\n")));
}

// Four queued messages go in four polls; one answer "disconnected", nothing is sent.
TEST_F(WebsockDelayTest, WaitTakesOneMessagePerPollAndAnswersOnlyStatusRequests) {
  make_worker(2, 60);
  for (const char *text : {"lost 1", status_request, R"({"service":"internal-ipc"})", "lost 2"})
    push_from_bus(text);
  std::vector<std::size_t> left;
  fake_libc::on_sleep([&](std::int64_t) { left.push_back(bus_to_ws.items.size()); });
  worker->wait_before_connect();
  left.resize(6);
  EXPECT_THAT(left, ElementsAre(4, 3, 2, 1, 0, 0));
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// A message taken in the wait logs "->From queue" and its dump, and is lost.
TEST_F(WebsockDelayTest, WaitLogsAndDumpsWhatItTakes) {
  make_worker(2, 60);
  push_from_bus("lost");
  worker->wait_before_connect();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("Generate delay into [1;3) range\n"),
                          line("Delay before connection: 1 sec\n"),
                          line("websock-roaming->From queue\n"), dump_line("lost")));
}

// Null pointers from the bus-to-service queue are dropped without a line, waiting and connected.
TEST_F(WebsockDelayTest, ItemWithoutAMessageIsDropped) {
  make_worker(2, 60);
  bus_to_ws.push(nullptr);
  worker->wait_before_connect();
  EXPECT_TRUE(bus_to_ws.items.empty());
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("Generate delay into [1;3) range\n"),
                                             line("Delay before connection: 1 sec\n")));
  worker.reset();
  make_connected_worker();
  bus_to_ws.push(nullptr);
  fake_lws::clear_calls();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_TRUE(bus_to_ws.items.empty());
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// The bus-to-service queue's mutex is free while the wait answers a request from it.
TEST_F(WebsockDelayTest, QueueIsUnlockedWhileItsMessageIsHandled) {
  make_worker(2, 60);
  push_from_bus(status_request);
  bool was_free = false;
  ws_to_bus.set_notify([&] {
    const std::unique_lock<std::mutex> free(bus_to_ws.lock, std::try_to_lock);
    was_free = free.owns_lock();
  });
  worker->wait_before_connect();
  EXPECT_TRUE(was_free);
}

// A request pushed during poll 7 is answered "disconnected" by poll 8, 50 ms later.
TEST_F(WebsockDelayTest, RequestDuringTheWaitIsAnsweredAtTheNextPoll) {
  make_worker(20, 60);
  int polls = 0;
  fake_libc::on_sleep([&](std::int64_t) {
    ++polls;
    if (polls == 7)
      push_from_bus(status_request);
    if (polls == 8) {
      EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
    }
  });
  worker->wait_before_connect();
  EXPECT_GT(polls, 8);
}

} // namespace
} // namespace vemk
