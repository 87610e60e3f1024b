#include <numeric>
#include <string>
#include <vector>

#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class WebsockKeepaliveTest : public WebsockFixture {
protected:
  static void become_writeable() { fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE); }

  /// Lets 30 seconds pass, in which nothing comes from the library, and a ping go out.
  void send_ping() {
    let_pass(30);
    become_writeable();
  }

  static std::string ping_line(int elapsed) {
    return line("websock-roaming->process_client_writeable: It's time to ping websocket server, "
                "expired [" +
                std::to_string(elapsed) + "]\n");
  }

  static std::string missing_line(int count) {
    return line("websock-roaming->There are no " + std::to_string(count) +
                " pong answer in a row from server\n");
  }

  /// It ends the steps in so many seconds and not in one less.
  void expect_watchdog_in(int seconds) {
    let_pass(seconds - 1);
    EXPECT_TRUE(worker->running);
    forget_records();
    let_pass(1);
    EXPECT_FALSE(worker->running);
  }
};

// Thirty writeable callbacks within the first 29 seconds send no ping.
TEST_F(WebsockKeepaliveTest, NoPingIsSentBeforeThirtySeconds) {
  make_connected_worker();
  for (int second = 0; second < 29; ++second) {
    become_writeable();
    let_pass(1);
  }
  become_writeable();
  EXPECT_THAT(fake_lws::frames(), IsEmpty());
  EXPECT_EQ(worker->missed_pongs, 0);
}

// At 30 s: ping line with [30], frame of type 5 and length 0, count 1, last ping now, two requests.
TEST_F(WebsockKeepaliveTest, PingGoesOutAtThirtySeconds) {
  make_connected_worker();
  let_pass(30);
  forget_records();
  become_writeable();
  EXPECT_THAT(fake_lws::calls(), ElementsAre(ping_call, "lws_callback_on_writable wsi1",
                                             "lws_callback_on_writable wsi1"));
  EXPECT_THAT(fake_log::lines(), ElementsAre(ping_line(30), ping_sent_line()));
  EXPECT_EQ(worker->missed_pongs, 1);
  EXPECT_EQ(worker->last_ping.tv_sec, 1030);
}

// From 1000.999999999 to 1030.0 counts as 30 seconds.
TEST_F(WebsockKeepaliveTest, OnlyWholeSecondsAreCompared) {
  make_connected_worker();
  worker->last_ping.tv_nsec = 999999999;
  let_pass(30);
  become_writeable();
  EXPECT_EQ(fake_lws::frames().size(), 1u);
}

// After a ping at 47 s there is none at 76 s and one at 77 s.
TEST_F(WebsockKeepaliveTest, NextPingWaitsThirtySecondsFromTheLast) {
  make_connected_worker();
  let_pass(47);
  become_writeable();
  let_pass(29);
  become_writeable();
  EXPECT_EQ(fake_lws::frames().size(), 1u);
  let_pass(1);
  become_writeable();
  EXPECT_EQ(fake_lws::frames().size(), 2u);
}

// A due ping, its request, then the message, then the request of every writeable callback.
TEST_F(WebsockKeepaliveTest, PingComesBeforeAQueuedMessage) {
  make_connected_worker();
  let_pass(31);
  push_from_bus("text");
  forget_records();
  become_writeable();
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre(ping_call, "lws_callback_on_writable wsi1", "lws_write wsi1 4 0",
                          "lws_callback_on_writable wsi1"));
  EXPECT_EQ(fake_log::lines().at(0), ping_line(31));
}

// 120 seconds into an attempt a writeable callback sends no ping, and `running` is still set.
TEST_F(WebsockKeepaliveTest, NothingIsKeptAliveBeforeTheEstablishment) {
  make_connecting_worker();
  let_pass(120);
  become_writeable();
  EXPECT_THAT(fake_lws::frames(), IsEmpty());
  EXPECT_TRUE(worker->running);
}

// Results 0 and -1 leave the count at 0, 1 byte makes it 1; the time of the last ping moves on.
TEST_F(WebsockKeepaliveTest, PingWithoutAPositiveResultIsNotCounted) {
  make_connected_worker();
  for (const int result : {0, -1, 1}) {
    fake_lws::script_write_results({result});
    send_ping();
    EXPECT_EQ(worker->missed_pongs, result == 1 ? 1 : 0) << result;
  }
  EXPECT_EQ(fake_lws::frames().size(), 3u);
  // Failed or not, it counts for the interval.
  EXPECT_EQ(worker->last_ping.tv_sec, 1090);
}

// Twenty pings, each answered: the count goes 0, 1, 0 with trace 119, and the connection stays.
TEST_F(WebsockKeepaliveTest, AnsweredPingsKeepTheConnection) {
  make_connected_worker();
  for (int round = 0; round < 20; ++round) {
    send_ping();
    EXPECT_EQ(worker->missed_pongs, 1);
    fake_log::clear();
    fake_lws::deliver(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
    EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_client_receive_pong", 119)));
    EXPECT_EQ(worker->missed_pongs, 0);
  }
  EXPECT_TRUE(worker->alive);
  EXPECT_TRUE(worker->running);
}

// Reason 7, a server connection's pong, leaves a count of 2; a pong sets it to 0, and sends nothing.
TEST_F(WebsockKeepaliveTest, PongClearsACountOfTwoAndAServersPongDoesNot) {
  make_connected_worker();
  forget_records();
  worker->missed_pongs = 2;
  fake_lws::deliver(LWS_CALLBACK_RECEIVE_PONG);
  EXPECT_EQ(worker->missed_pongs, 2);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
  EXPECT_EQ(worker->missed_pongs, 0);
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// The third ping makes the count 3; the callback after it logs, sets it to 0 and clears `alive`.
TEST_F(WebsockKeepaliveTest, ThirdUnansweredPingDropsAtTheNextCallback) {
  make_connected_worker();
  send_ping();
  send_ping();
  send_ping();
  EXPECT_EQ(worker->missed_pongs, 3);
  EXPECT_TRUE(worker->alive);
  forget_records();
  become_writeable();
  EXPECT_FALSE(worker->alive);
  EXPECT_EQ(worker->missed_pongs, 0);
  EXPECT_THAT(fake_log::lines(), ElementsAre(missing_line(3)));
  // The callback itself is still handled.
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_FALSE(worker->closed);
}

// For each of the reasons 0 to 109 and 1000 the missing-pong line comes first, `alive` is cleared.
TEST_F(WebsockKeepaliveTest, AnyReasonDropsOnceThreePongsAreMissing) {
  std::vector<int> reasons(110);
  std::iota(reasons.begin(), reasons.end(), 0);
  reasons.push_back(1000);
  for (const int reason : reasons) {
    SCOPED_TRACE(reason);
    make_connected_worker();
    worker->missed_pongs = 3;
    fake_lws::deliver(static_cast<lws_callback_reasons>(reason));
    EXPECT_FALSE(worker->alive);
    EXPECT_EQ(worker->missed_pongs, 0);
    EXPECT_EQ(fake_log::lines().at(0), missing_line(3));
    // A pong that comes too late drops all the same.
    if (reason == LWS_CALLBACK_CLIENT_RECEIVE_PONG) {
      EXPECT_EQ(fake_log::lines().at(1), trace_line("process_client_receive_pong", 119));
    }
  }
}

// Two unanswered pings before a reconnect and one after it drop the new connection.
TEST_F(WebsockKeepaliveTest, CountOfAnEarlierConnectionGoesOnInTheNext) {
  make_connected_worker();
  send_ping();
  send_ping();
  fake_lws::deliver(fake_lws::closed_reason);
  reconnect();
  EXPECT_EQ(worker->missed_pongs, 2);
  EXPECT_TRUE(worker->alive);
  send_ping();
  EXPECT_EQ(worker->missed_pongs, 3);
  forget_records();
  become_writeable();
  EXPECT_FALSE(worker->alive);
  EXPECT_THAT(fake_log::lines(), ElementsAre(missing_line(3)));
}

// A count of 2 logs nothing, stays and drops nothing; one of 5 is logged as 5 and drops as 3 does.
TEST_F(WebsockKeepaliveTest, CountAboveTheLimitIsNamedAsItIsAndTwoDropNothing) {
  make_connected_worker();
  forget_records();
  worker->missed_pongs = 2;
  become_writeable();
  EXPECT_TRUE(worker->alive);
  EXPECT_EQ(worker->missed_pongs, 2);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  worker->missed_pongs = 5;
  become_writeable();
  EXPECT_THAT(fake_log::lines(), ElementsAre(missing_line(5)));
  EXPECT_FALSE(worker->alive);
}

// At 60 s, not at 59, "ping_timeout:197" is logged and `running` cleared; the flags stay.
TEST_F(WebsockKeepaliveTest, WatchdogFiresSixtySecondsAfterTheEstablishment) {
  make_connected_worker();
  expect_watchdog_in(60);
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("ping_timeout", 197)));
  // The flags of the connection are left to deinit.
  EXPECT_TRUE(worker->alive);
  EXPECT_TRUE(worker->connected);
}

// The timer holds a copy of the handler: emptying the member afterwards changes nothing.
TEST_F(WebsockKeepaliveTest, WatchdogRunsTheCopyMadeWhenItWasArmed) {
  make_connecting_worker();
  int fired = 0;
  worker->ping_timeout_handler = [&] { ++fired; };
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  worker->ping_timeout_handler = nullptr;
  let_pass(60);
  EXPECT_EQ(fired, 1);
}

// The watchdog is a timer with id 0: cancelling that id by hand takes it away.
TEST_F(WebsockKeepaliveTest, WatchdogHasTheTimerIdZero) {
  make_connected_worker();
  worker->timers.cancel_timers(0);
  let_pass(70);
  EXPECT_TRUE(worker->running);
}

// Establishment and ping cancel timers with id 0 only; one with id 1 still fires.
TEST_F(WebsockKeepaliveTest, OtherTimersSurviveTheArming) {
  make_connecting_worker();
  int fired = 0;
  worker->timers.add_timer([&] { ++fired; }, 1, 40);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  send_ping();
  let_pass(10);
  EXPECT_EQ(fired, 1);
}

// In one step lws_service comes first, then the due watchdog, and the step returns true.
TEST_F(WebsockKeepaliveTest, WatchdogFiresInTheStepThatFollowsTheService) {
  make_connected_worker();
  let_pass(59);
  fake_libc::advance_seconds(1);
  forget_records();
  bool was_running_in_service = false;
  fake_lws::script_service([&] { was_running_in_service = worker->running; });
  EXPECT_TRUE(worker->run_once());
  EXPECT_TRUE(was_running_in_service);
  EXPECT_FALSE(worker->running);
  EXPECT_EQ(fake_lws::calls(), service_calls("context1"));
}

// After four pings 45 s apart the watchdog fires 60 s after the last of them.
TEST_F(WebsockKeepaliveTest, EveryPingPushesTheWatchdogBack) {
  make_connected_worker();
  for (int ping = 0; ping < 4; ++ping) {
    let_pass(45);
    become_writeable();
    fake_lws::deliver(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
  }
  expect_watchdog_in(60);
}

// A ping with the result -1 at 50 s moves it to 110 s; a callback at 70 s sends none and does not.
TEST_F(WebsockKeepaliveTest, FailedPingPushesTheWatchdogBackToo) {
  make_connected_worker();
  let_pass(50);
  fake_lws::script_write_results({-1});
  become_writeable();
  let_pass(20);
  become_writeable();
  expect_watchdog_in(40);
}

// A second establishment at 30 s moves the one watchdog to 90 s, and it fires once.
TEST_F(WebsockKeepaliveTest, EstablishmentArmsOneWatchdogOnly) {
  make_connected_worker();
  let_pass(30);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  expect_watchdog_in(60);
  worker->running = true;
  let_pass(120);
  EXPECT_TRUE(worker->running);
}

} // namespace
} // namespace vemk
