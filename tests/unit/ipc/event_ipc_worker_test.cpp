#include "ipc/event_ipc_worker.h"

#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_bus.h"
#include "fakes/fake_bus_descriptor.h"
#include "support/buffers.h"
#include "support/joined.h"
#include "support/logging_test.h"
#include "support/worker_thread.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using texts_t = std::vector<std::string>;

constexpr std::size_t limit = queue_bound::limit_bytes;

class EventIpcWorkerTest : public LoggingTest {
protected:
  EventIpcWorkerTest() : LoggingTest(0) {
    fake_bus::reset();
    fake_libc::reset();
    EXPECT_EQ(pipe(ends), 0);
    fake_bus::set_descriptor(ends[0]);
    worker = std::make_unique<event_ipc_worker>(&bus_to_ws, &ws_to_bus, 2, &run_flag,
                                                &bus_to_ws_bound, &ws_to_bus_bound);
    worker->init();
    fake_bus::calls.clear();
  }

  ~EventIpcWorkerTest() override {
    fake_libc::on_poll(nullptr);
    worker.reset();
    EXPECT_EQ(fake_bus::records_in_use(), 0u);
    fake_bus::set_descriptor(-1);
    close(ends[0]);
    close(ends[1]);
  }

  static texts_t numbers(int from, int below) {
    texts_t texts;
    for (; from < below; ++from)
      texts.push_back(std::to_string(from));
    return texts;
  }

  static texts_t sending(const texts_t &texts) {
    texts_t calls;
    for (const std::string &text : texts)
      calls.push_back("MsgSend " + text + " 3 " + std::to_string(text.size()));
    return calls;
  }

  static texts_t asking(std::size_t times) { return texts_t(times, "GetMsgFromQueueNoWait"); }

  /// The bus's calls of a step, which asks for a pause or not.
  texts_t calls_of_step(bool asks_for_pause) {
    fake_bus::calls.clear();
    EXPECT_EQ(worker->run_once(), asks_for_pause);
    return fake_bus::calls();
  }

  /// The milliseconds that the pause takes.
  std::int64_t pause() {
    const std::int64_t start_us = fake_libc::now_us();
    worker->pause_before_next_step();
    return (fake_libc::now_us() - start_us) / 1000;
  }

  void make_readable() { EXPECT_EQ(write(ends[1], "x", 1), 1); }

  /// Fills the bus-to-service queue with four messages, and leaves "late" on the bus.
  void fill() {
    for (int i = 0; i < 4; ++i)
      fake_bus::add_message(std::string(limit / 4, 'x'));
    fake_bus::add_message("late");
    EXPECT_EQ(calls_of_step(false), asking(4));
  }

  void take_from_full_queue() {
    EXPECT_NE(bus_to_ws.try_pop(), nullptr);
    bus_to_ws_bound.after_take();
  }

  bool run_flag = true;
  int ends[2] = {-1, -1};
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  queue_bound bus_to_ws_bound{&bus_to_ws, &ws_to_bus};
  queue_bound ws_to_bus_bound{&ws_to_bus, &bus_to_ws};
  std::unique_ptr<event_ipc_worker> worker;
};

// The steps.

// Of 100 messages each way a step takes 64 from the bus, then sends 64; the next one the rest.
TEST_F(EventIpcWorkerTest, StepTakesUpTo64MessagesAndThenSendsUpTo64) {
  const texts_t texts = numbers(0, 100);
  for (const std::string &text : texts) {
    fake_bus::add_message(text);
    ws_to_bus.push(buffer_of(text));
  }
  EXPECT_EQ(calls_of_step(false), joined({asking(64), sending(numbers(0, 64))}));
  EXPECT_EQ(calls_of_step(false), joined({asking(37), sending(numbers(64, 100))}));
  EXPECT_EQ(take_all(bus_to_ws), texts);
}

// A step that took or sent asks for no pause, so nothing is sent between the last look and a wait.
TEST_F(EventIpcWorkerTest, PauseFollowsOnlyAnEmptyLookWithoutASend) {
  fake_bus::add_message("from bus");
  EXPECT_EQ(calls_of_step(false), asking(2));
  EXPECT_EQ(calls_of_step(true), asking(1));
  ws_to_bus.push(buffer_of("to bus"));
  EXPECT_EQ(calls_of_step(false), joined({asking(1), sending({"to bus"})}));
  EXPECT_EQ(calls_of_step(true), asking(1));
}

// Exactly 64 messages each way end a step without another look, and the next step looks.
TEST_F(EventIpcWorkerTest, FullBatchIsNotTheEnd) {
  for (const std::string &text : numbers(0, 64)) {
    fake_bus::add_message(text);
    ws_to_bus.push(buffer_of(text));
  }
  EXPECT_EQ(calls_of_step(false), joined({asking(64), sending(numbers(0, 64))}));
  EXPECT_EQ(calls_of_step(true), asking(1));
}

// A null pointer and an empty message for the bus are dropped and count as sent.
TEST_F(EventIpcWorkerTest, EmptyQueuedMessagesAreDropped) {
  ws_to_bus.push(nullptr);
  ws_to_bus.push(buffer_of(""));
  EXPECT_EQ(calls_of_step(false), asking(1));
  EXPECT_EQ(calls_of_step(true), asking(1));
}

// The waits.

// A wait has 60 s, and ends at once with the bus's descriptor or with a message for the bus.
TEST_F(EventIpcWorkerTest, WaitEndsWithTheBusOrTheQueue) {
  EXPECT_EQ(pause(), 60000);
  fake_libc::on_poll([this] { ws_to_bus.push(buffer_of("to bus")); });
  EXPECT_EQ(pause(), 0);
  fake_libc::on_poll([this] { make_readable(); });
  EXPECT_EQ(pause(), 0);
  EXPECT_THAT(fake_libc::poll_limits_ms(), ElementsAre(60000, 60000, 60000));
}

// A descriptor that stays readable ends 30 waits at once. Polls of 2 to 100 ms follow, then waits.
TEST_F(EventIpcWorkerTest, DescriptorThatStaysReadableDoesNotKeepTheWorkerBusy) {
  make_readable();
  for (int round = 0; round < 2; ++round) {
    for (int wait = 0; wait < 30; ++wait)
      EXPECT_EQ(pause(), 0);
    for (const int poll_ms : {2, 4, 8, 16, 32, 64, 100})
      EXPECT_EQ(pause(), poll_ms);
  }
  EXPECT_EQ(pause(), 0);
}

// A message that was queued before the wait ends it; a second one behind it is no other event.
TEST_F(EventIpcWorkerTest, FirstQueuedMessageWakesTheWorker) {
  ws_to_bus.push(buffer_of("first"));
  EXPECT_EQ(pause(), 0);
  ws_to_bus.push(buffer_of("second"));
  EXPECT_EQ(pause(), 60000);
}

// init() calls GetMsgDescriptor behind ModulePeerStart, and waits for the latest one.
TEST_F(EventIpcWorkerTest, DescriptorIsTakenAfterEachJoin) {
  worker->deinit();
  fake_bus::set_descriptor(-1);
  fake_bus::calls.clear();
  EXPECT_TRUE(worker->init());
  EXPECT_THAT(fake_bus::calls(),
              ElementsAre("InitTrace VEMk", "SetTraceOpt 0 4 0", "InitLibParams 2 {-2, 0} 2",
                          "SetModuleLoop 0", "GetModuleLoop", "ModulePeerStart",
                          "GetMsgDescriptor"));
  make_readable();
  EXPECT_EQ(pause(), 1);
  worker->deinit();
  fake_bus::set_descriptor(ends[0]);
  worker->init();
  EXPECT_EQ(pause(), 0);
}

// A loop flag that stays set makes init() false, as with steps.
TEST_F(EventIpcWorkerTest, InitHasTheResultOfTheJoin) {
  fake_bus::ignore_flag_changes();
  EXPECT_FALSE(worker->init());
}

// The full queue.

// With 1 MiB in the bus-to-service queue nothing more is taken; what is for the bus is still sent.
TEST_F(EventIpcWorkerTest, FullQueueLeavesMessagesOnTheBus) {
  fill();
  ws_to_bus.push(buffer_of("to bus"));
  EXPECT_EQ(calls_of_step(false), sending({"to bus"}));
  EXPECT_THAT(calls_of_step(true), IsEmpty());
}

// One message of 1 MiB fills the queue, and its step asks for no pause.
TEST_F(EventIpcWorkerTest, OneMessageMayFillTheQueue) {
  fake_bus::add_message(std::string(limit, 'x'));
  EXPECT_EQ(calls_of_step(false), asking(1));
  EXPECT_THAT(calls_of_step(true), IsEmpty());
}

// Its wait is for 100 ms and not for the bus; a message for the bus ends it.
TEST_F(EventIpcWorkerTest, FullQueueIsWaitedForInsteadOfTheBus) {
  fill();
  calls_of_step(true);
  make_readable();
  EXPECT_EQ(pause(), 100);
  ws_to_bus.push(buffer_of("to bus"));
  EXPECT_EQ(pause(), 0);
}

// At half of 1 MiB, not before, the wait ends, and the message on the bus is taken.
TEST_F(EventIpcWorkerTest, HalfEmptyQueueIsFilledAgain) {
  fill();
  calls_of_step(true);
  take_from_full_queue();
  EXPECT_EQ(pause(), 100);
  EXPECT_THAT(calls_of_step(true), IsEmpty());
  fake_libc::on_poll([this] { take_from_full_queue(); });
  EXPECT_EQ(pause(), 0);
  fake_libc::on_poll(nullptr);
  EXPECT_EQ(calls_of_step(false), asking(2));
  EXPECT_EQ(take_all(bus_to_ws).back(), "late");
  calls_of_step(true);
  EXPECT_EQ(pause(), 60000);
}

// A stopped producer of the service-to-bus queue is woken when half of 1 MiB has been sent.
TEST_F(EventIpcWorkerTest, SendingMakesRoomForTheService) {
  int wakeups = 0;
  bus_to_ws.set_notify([&wakeups] { ++wakeups; });
  std::vector<int> seen;
  fake_bus::on_send([&] { seen.push_back(wakeups); });
  for (int i = 0; i < 4; ++i)
    ws_to_bus.push(buffer_of(std::string(limit / 4, 'x')));
  EXPECT_TRUE(ws_to_bus_bound.stops_producer());
  worker->run_once();
  EXPECT_THAT(seen, ElementsAre(0, 0, 1, 1));
  EXPECT_FALSE(ws_to_bus_bound.stops_producer());
  bus_to_ws.reset_notify();
}

// The thread.

// 100 messages each way, pushed while the thread waits, are moved without a sleep of 100 ms.
TEST_F(EventIpcWorkerTest, MessagesMoveOnTheThreadWithoutAStepPause) {
  int waits = 0;
  fake_libc::on_poll([&] {
    if (++waits == 2)
      fake_bus::set_flag(0);
    if (waits != 1)
      return;
    make_readable();
    std::thread pusher([this] {
      for (const std::string &text : numbers(0, 100)) {
        fake_bus::add_message(text);
        ws_to_bus.push(buffer_of(text));
      }
    });
    pusher.join();
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
  });
  run_until_restart(*worker, 1);
  EXPECT_EQ(take_all(bus_to_ws), numbers(0, 100));
  EXPECT_EQ(fake_bus::sent(), numbers(0, 100));
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(restart_pause_us));
}

// A push behind the worker's end reaches nothing of it.
TEST_F(EventIpcWorkerTest, DestructorTakesItsNotifyAway) {
  worker.reset();
  const std::vector<int> closed = fake_libc::closed_descriptors();
  EXPECT_EQ(closed.size(), 1u);
  ws_to_bus.push(buffer_of("late"));
  EXPECT_EQ(ws_to_bus.items.size(), 1u);
}

} // namespace
} // namespace vemk
