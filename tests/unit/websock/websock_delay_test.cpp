#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class WebsockDelayTest : public WebsockFixture {
protected:
  /// At the worker's present state rand's smallest and largest value give the ends of [low;high),
  /// its line says so, and `stored` is the delay afterwards.
  void expect_draw(std::uint32_t low, std::uint32_t high, std::uint32_t stored) {
    const std::uint32_t before = worker->current_delay;
    for (const std::uint32_t drawn : {low, high - 1}) {
      worker->current_delay = before;
      fake_log::clear();
      fake_libc::script_rand({static_cast<int>(drawn - low)});
      EXPECT_EQ(worker->next_delay(), drawn);
      EXPECT_EQ(worker->current_delay, stored);
      EXPECT_THAT(fake_log::lines(),
                  ElementsAre(line("Generate delay into [" + std::to_string(low) + ";" +
                                   std::to_string(high) + ") range\n")));
    }
  }
};

// The delay.

// With delay 2: windows [1;3), [2;6), [4;12); the stored delay is 4, 8, 16 after each draw.
TEST_F(WebsockDelayTest, DelayIsDrawnFromTheValueBeforeTheDoubling) {
  make_worker(2, 60);
  expect_draw(1, 3, 4);
  expect_draw(2, 6, 8);
  expect_draw(4, 12, 16);
}

// 10 and 60: [5;15), [10;30), [20;60), then [30;90) for ever while 60 is stored.
TEST_F(WebsockDelayTest, CapAppliesToTheStoredValueAndNotToTheDrawnDelay) {
  make_worker(10, 60);
  expect_draw(5, 15, 20);
  expect_draw(10, 30, 40);
  expect_draw(20, 60, 60);
  for (int i = 0; i < 3; ++i)
    expect_draw(30, 90, 60);
}

// A mere attempt leaves 20 stored; an establishment makes the next window [5;15) again.
TEST_F(WebsockDelayTest, EstablishmentBringsTheInitialDelayBack) {
  make_worker(10, 60);
  worker->next_delay();
  worker->_connect();
  EXPECT_EQ(worker->current_delay, 20u);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(worker->current_delay, 10u);
  expect_draw(5, 15, 20);
}

// Initial delay 0: the window is [1;3) and 2 is stored; from 2 the window is [1;3) again.
TEST_F(WebsockDelayTest, InitialDelayZeroStartsWithOneOrTwoSeconds) {
  make_worker(0, 60);
  EXPECT_EQ(worker->current_delay, 0u);
  expect_draw(1, 3, 2);
  expect_draw(1, 3, 4);
}

// Initial delay 0, maximum 1: [1;3) at first, 1 stored, then always 0 seconds of [0;1).
TEST_F(WebsockDelayTest, InitialDelayZeroIsCappedByASmallerMaximum) {
  make_worker(0, 1);
  expect_draw(1, 3, 1);
  expect_draw(0, 1, 1);
}

// With both delays 0 every window is [1;3) and the stored delay stays 0.
TEST_F(WebsockDelayTest, BothDelaysZeroGiveOneOrTwoSecondsForEver) {
  make_worker(0, 0);
  for (int i = 0; i < 4; ++i)
    expect_draw(1, 3, 0);
}

// 100 with maximum 60: the first window is [50;150), then 60 is stored.
TEST_F(WebsockDelayTest, InitialDelayAboveTheMaximumCountsOnce) {
  make_worker(100, 60);
  expect_draw(50, 150, 60);
}

// Delay 7 gives the window [3;10) and stores 14.
TEST_F(WebsockDelayTest, OddDelayIsHalvedTowardsZero) {
  make_worker(7, 60);
  expect_draw(3, 10, 14);
}

// RAND_MAX is taken modulo the span 10, plus 5.
TEST_F(WebsockDelayTest, RandomValueIsReducedToTheSpan) {
  make_worker(10, 60);
  fake_libc::script_rand({RAND_MAX});
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
    fake_libc::script_rand({5});
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
  fake_libc::script_rand({1});
  worker->wait_before_connect();
  EXPECT_THAT(fake_libc::sleeps_us(), testing::AllOf(testing::SizeIs(40), testing::Each(50000)));
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("Generate delay into [1;3) range\n"),
                                             line("Delay before connection: 2 sec\n")));
}

// Four queued messages go in four polls; one is answered, with its queue free; nothing is sent.
TEST_F(WebsockDelayTest, WaitTakesOneMessagePerPollAndAnswersOnlyStatusRequests) {
  make_worker(2, 60);
  for (const char *text : {"lost 1", status_request, R"({"service":"internal-ipc"})", "lost 2"})
    push_from_bus(text);
  std::vector<std::size_t> left;
  fake_libc::on_sleep([&](std::int64_t) { left.push_back(bus_to_ws.items.size()); });
  ws_to_bus.set_notify([&] {
    EXPECT_TRUE(std::unique_lock<std::mutex>(bus_to_ws.lock, std::try_to_lock).owns_lock());
  });
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
  fake_lws::calls.clear();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_TRUE(bus_to_ws.items.empty());
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
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
