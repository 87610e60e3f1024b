#include <algorithm>
#include <thread>
#include <unistd.h>

#include "support/joined.h"
#include "support/worker_thread.h"
#include "unit/websock/event_websock_fixture.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using calls_t = std::vector<std::string>;

class EventWebsockWorkerTest : public EventWebsockFixture {
protected:
  /// The milliseconds since second 1000 at which the worker answers a status request.
  std::vector<std::int64_t> &note_answers() {
    ws_to_bus.set_notify([this] { answers.push_back(fake_libc::now_us() / 1000 - 1000000); });
    return answers;
  }

  void fill_service_to_bus() {
    for (int i = 0; i < 2; ++i)
      ws_to_bus.push(buffer_of(std::string(limit / 2, 'x')));
  }

  void take_for_bus() {
    EXPECT_NE(ws_to_bus.try_pop(), nullptr);
    ws_to_bus_bound.after_take();
  }

  std::vector<std::int64_t> answers;
  const calls_t hold = {"lws_rx_flow_control wsi1 0", writeable_call};
  const calls_t resume = {"lws_rx_flow_control wsi1 1", writeable_call};
};

// The wait of a step.

// An attempt's step has at most 500 ms, and asks for no pause.
TEST_F(EventWebsockWorkerTest, AttemptIsServedInHalfSeconds) {
  make_connecting();
  EXPECT_EQ(calls_of_step(), service_calls("context1", 500));
}

// A connection without messages is served for 30 s, then for 19750 ms after 10.25 s.
TEST_F(EventWebsockWorkerTest, QuietConnectionSleepsUntilTheNextPing) {
  make_connected();
  EXPECT_EQ(calls_of_step(), service_calls("context1", 30000));
  usleep(10250000);
  EXPECT_EQ(calls_of_step(), service_calls("context1", 19750));
}

// An earlier timer ends it: one in 5 s gives 5000 ms, and is run behind the service.
TEST_F(EventWebsockWorkerTest, QuietConnectionSleepsUntilTheNextTimer) {
  make_connected();
  bool has_fired = false;
  event->timers.add_timer([&] { has_fired = true; }, 7, 5);
  EXPECT_EQ(calls_of_step(5), service_calls("context1", 5000));
  EXPECT_TRUE(has_fired);
}

// A due ping asks for a writeable callback, and waits until the watchdog at 60 s, which fires.
TEST_F(EventWebsockWorkerTest, OverduePingWaitsForTheWatchdog) {
  make_connected();
  calls_of_step(30);
  EXPECT_EQ(calls_of_step(10), joined({{writeable_call}, service_calls("context1", 30000)}));
  EXPECT_EQ(calls_of_step(19), joined({{writeable_call}, service_calls("context1", 20000)}));
  EXPECT_TRUE(event->running);
  EXPECT_EQ(calls_of_step(1), joined({{writeable_call}, service_calls("context1", 1000)}));
  EXPECT_FALSE(event->running);
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("ping_timeout", 197)));
}

// A ping that left brings the wait of 30 s back.
TEST_F(EventWebsockWorkerTest, PingBeginsTheNextWait) {
  make_connected();
  calls_of_step(30);
  EXPECT_EQ(calls_when_writeable(),
            calls_t({"lws_write wsi1 " + std::to_string(ping_length) + " 5", writeable_call}));
  EXPECT_EQ(calls_of_step(), service_calls("context1", 30000));
}

// After the service's close frame a step has 500 ms again, and so behind the close itself.
TEST_F(EventWebsockWorkerTest, ClosingConnectionIsServedInHalfSeconds) {
  make_connected();
  EXPECT_EQ(fake_lws::deliver(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE), 0);
  EXPECT_EQ(calls_of_step(), service_calls("context1", 500));
  EXPECT_TRUE(event->alive);
  fake_lws::deliver(fake_lws::closed_reason);
  EXPECT_FALSE(event->alive);
  EXPECT_EQ(calls_of_step(), service_calls("context1", 500));
}

// The next connection sleeps for 30 s.
TEST_F(EventWebsockWorkerTest, CloseIsForgottenWithItsConnection) {
  make_connected();
  fake_lws::deliver(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE);
  fake_lws::deliver(fake_lws::closed_reason);
  event->deinit();
  event->init();
  establish();
  EXPECT_EQ(calls_of_step(), service_calls("context2", 30000));
}

// A wait of 30 s may take 40 s; one that takes 41 s ends the process.
TEST_F(EventWebsockWorkerTest, WaitThatWasAskedForIsNoJumpOfTheClock) {
  make_connected();
  calls_of_step(40);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  make_connected();
  fake_lws::script_service([] { fake_libc::advance_seconds(41); });
  EXPECT_EQ(fake_libc::exit_status([this] { event->run_once(); }), -1);
}

// Receiving.

// With 1 MiB in the service-to-bus queue a step stops reading, once.
TEST_F(EventWebsockWorkerTest, FullQueueStopsTheReading) {
  make_connected();
  EXPECT_EQ(calls_of_step(), service_calls("context1", 30000));
  fill_service_to_bus();
  EXPECT_EQ(calls_of_step(), joined({service_calls("context1", 30000), hold}));
  EXPECT_EQ(calls_of_step(), service_calls("context1", 30000));
}

// At 512 KiB the bus thread wakes the service thread, also while messages wait; reading goes on.
TEST_F(EventWebsockWorkerTest, HalfEmptyQueueResumesTheReading) {
  make_connected();
  fill_service_to_bus();
  calls_of_step();
  for (const char *text : {"one", "two"})
    EXPECT_EQ(calls_of_push(text), calls_t({wake_call("context1", "wsi1")}));
  forget_records();
  take_for_bus();
  EXPECT_EQ(fake_lws::calls(), calls_t({wake_call("context1", "wsi1")}));
  EXPECT_EQ(calls_of_step(), joined({{writeable_call}, service_calls("context1", 30000), resume}));
  EXPECT_THAT(calls_of_push("three"), IsEmpty());
}

// Four pings without a pong do not end a connection that is not read; behind it three do.
// Since 4.0 each of the four keeps the library from closing the connection, too.
TEST_F(EventWebsockWorkerTest, PongsAreNotMissedWhileNothingIsRead) {
  make_connected();
  fill_service_to_bus();
  calls_of_step();
  for (int ping = 1; ping <= 4; ++ping) {
    calls_of_step(30);
    const std::vector<std::string> calls = calls_when_writeable();
    EXPECT_EQ(event->missed_pongs, 0);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "lws_validity_confirmed wsi1"),
              LWS_LIBRARY_VERSION_NUMBER >= 4000000 ? 1 : 0);
  }
  take_for_bus();
  calls_of_step();
  for (int ping = 1; ping <= 3; ++ping) {
    EXPECT_TRUE(event->alive);
    calls_of_step(30);
    calls_when_writeable();
  }
  calls_when_writeable();
  EXPECT_FALSE(event->alive);
}

// Without a connection a full queue stops nothing; the next connection is not read.
TEST_F(EventWebsockWorkerTest, FullQueueStopsEveryConnection) {
  make_connected();
  fill_service_to_bus();
  calls_of_step();
  fake_lws::deliver(fake_lws::closed_reason);
  EXPECT_EQ(calls_of_step(), service_calls("context1", 500));
  event->deinit();
  event->init();
  EXPECT_EQ(calls_of_step(), service_calls("context2", 500));
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_THAT(calls_of_step(), Contains("lws_rx_flow_control wsi2 0"));
}

// The answer to the library's question for the thread.

#if LWS_LIBRARY_VERSION_NUMBER >= 3000000

// Reason 31 is answered with 0 on any thread, as by default.
TEST_F(EventWebsockWorkerTest, ThreadsHaveNoNumbers) {
  make_connected();
  EXPECT_EQ(fake_lws::deliver(LWS_CALLBACK_GET_THREAD_ID), 0);
}

#else

// Reason 31 is answered with the calling thread's number, and another thread's differs.
// The library ends a wait of the service thread only for a request from a thread that differs.
TEST_F(EventWebsockWorkerTest, EveryThreadHasANumber) {
  make_connected();
  const int own = fake_lws::deliver(LWS_CALLBACK_GET_THREAD_ID);
  int others = own;
  std::thread other([&others] { others = fake_lws::deliver(LWS_CALLBACK_GET_THREAD_ID); });
  other.join();
  EXPECT_EQ(own, gettid());
  EXPECT_NE(own, others);
}

#endif

// The question is not a sign of life that looks for missed pongs.
TEST_F(EventWebsockWorkerTest, ThreadNumberLooksForNoMissedPongs) {
  make_connected();
  event->missed_pongs = 3;
  fake_lws::deliver(LWS_CALLBACK_GET_THREAD_ID);
  EXPECT_TRUE(event->alive);
  fake_lws::deliver(LWS_CALLBACK_PROTOCOL_INIT);
  EXPECT_FALSE(event->alive);
}

// The wait before an attempt.

// 2 seconds without a message are one wait of 2000 ms; nothing sleeps.
TEST_F(EventWebsockWorkerTest, WaitForTheNextAttemptIsOneSleep) {
  make(2);
  fake_libc::script_rand({1});
  EXPECT_TRUE(event->init());
  EXPECT_THAT(fake_libc::poll_limits_ms(), ElementsAre(2000));
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
  EXPECT_EQ(fake_libc::now_us(), 1002000000);
}

// With a delay of 1 there is no wait at all, and none of 50 ms.
TEST_F(EventWebsockWorkerTest, WaitOfZeroSecondsTakesNoTime) {
  make(1);
  EXPECT_TRUE(event->init());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
  EXPECT_EQ(fake_libc::now_us(), 1000000000);
}

// 89 seconds pass the clock check.
TEST_F(EventWebsockWorkerTest, LongWaitIsNoJumpOfTheClock) {
  make(60);
  fake_libc::script_rand({59});
  EXPECT_TRUE(event->init());
  EXPECT_THAT(fake_libc::poll_limits_ms(), ElementsAre(89000));
}

// Of three requests that come together the first is answered at once, the others 50 ms apart.
TEST_F(EventWebsockWorkerTest, RequestDuringTheWaitIsAnsweredAtOnce) {
  make(2);
  fake_libc::on_poll([this] {
    fake_libc::on_poll(nullptr);
    note_answers();
    for (int i = 0; i < 3; ++i)
      push_from_bus(request);
  });
  event->init();
  EXPECT_THAT(answers, ElementsAre(0, 50, 100));
  EXPECT_THAT(fake_libc::poll_limits_ms(), ElementsAre(1000, 900));
  EXPECT_EQ(take_to_bus(), calls_t(4, disconnected_status));
}

// What was queued before is taken every 50 ms from the beginning: dropped, or answered.
TEST_F(EventWebsockWorkerTest, MessagesFromBeforeTheWaitGoEvery50Milliseconds) {
  make(2);
  push_from_bus("dropped");
  push_from_bus(request);
  event->queue_disconnected_status();
  note_answers();
  event->wait_before_connect();
  EXPECT_THAT(answers, ElementsAre(100));
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(50000, 50000));
  EXPECT_THAT(fake_libc::poll_limits_ms(), ElementsAre(900));
  EXPECT_TRUE(bus_to_ws.items.empty());
}

// Dropping makes room as sending does: at 512 KiB the stopped bus worker is woken.
TEST_F(EventWebsockWorkerTest, DroppingMakesRoomForTheBus) {
  make(2);
  for (int i = 0; i < 2; ++i)
    push_from_bus(std::string(limit / 2, 'x'));
  EXPECT_TRUE(bus_to_ws_bound.stops_producer());
  note_answers();
  event->wait_before_connect();
  EXPECT_THAT(answers, ElementsAre(50));
}

// A failed attempt.

// Without a context or connection init() is false, and the next one succeeds.
TEST_F(EventWebsockWorkerTest, FailedAttemptIsTriedAgain) {
  make();
  fake_lws::fail_next_context();
  EXPECT_FALSE(event->init());
  event->deinit();
  fake_lws::fail_next_connection();
  EXPECT_FALSE(event->init());
  event->deinit();
  EXPECT_TRUE(event->init());
}

// The log.

// Levels 3fb with the debug category; without it 0 behind the attempt.
TEST_F(EventWebsockWorkerTest, LibraryLogsOnlyForTheDebugCategory) {
  for (const std::uint32_t mask : {0x0Fu, 0x07u}) {
    g_log_level = mask;
    make();
    fake_lws::fail_next_context();
    for (int attempt = 0; attempt < 2; ++attempt) {
      forget_records();
      event->init();
      calls_t levels;
      for (const std::string &call : fake_lws::calls()) {
        if (call.find("lws_set_log_level") == 0)
          levels.push_back(call);
      }
      if (mask == 0x0F)
        EXPECT_THAT(levels, ElementsAre("lws_set_log_level 3fb"));
      else
        EXPECT_THAT(levels, ElementsAre("lws_set_log_level 3fb", "lws_set_log_level 0"));
      event->deinit();
    }
  }
}

// With the debug category each message is dumped both ways, and without it the line alone goes.
TEST_F(EventWebsockWorkerTest, MessagesAreDumpedForTheDebugCategory) {
  make_connected();
  push_from_bus("one");
  calls_when_writeable();
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->From queue\n"),
                                             dump_line("one"), sent_line(0, 3, 3)));
  forget_records();
  fake_lws::deliver_piece("two");
  EXPECT_EQ(fake_log::lines(), reception_lines("two"));
  event.reset();
  g_log_level = 0x07;
  make_connected();
  push_from_bus("one");
  calls_when_writeable();
  EXPECT_THAT(fake_log::lines(), ElementsAre(sent_line(0, 3, 3)));
}

// The thread.

// 50 reconnects under constant pushes: no call names what is gone, and no step has a pause.
TEST_F(EventWebsockWorkerTest, PushesDuringReconnectsTouchOnlyWhatExists) {
  make(1, 1);
  expect_reconnects_under_pushes(*event);
  EXPECT_THAT(fake_libc::sleeps_us(), Not(Contains(step_pause_us)));
}

} // namespace
} // namespace vemk
