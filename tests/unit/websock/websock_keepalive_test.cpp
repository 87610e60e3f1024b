#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/fake_lws.h"
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

  static std::string sent_line(int result) {
    return line("websock-roaming->lws_send:Send msg type [5] len [" + std::to_string(result) +
                "/0]  to websocket\n");
  }
};

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

TEST_F(WebsockKeepaliveTest, PingGoesOutAtThirtySeconds) {
  make_connected_worker();
  let_pass(30);
  forget_records();
  become_writeable();
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_write wsi1 0 5", "lws_callback_on_writable wsi1",
                                             "lws_callback_on_writable wsi1"));
  EXPECT_THAT(fake_log::lines(), ElementsAre(ping_line(30), sent_line(6)));
  EXPECT_EQ(worker->missed_pongs, 1);
  EXPECT_EQ(worker->last_ping.tv_sec, 1030);
}

TEST_F(WebsockKeepaliveTest, OnlyWholeSecondsAreCompared) {
  make_connected_worker();
  worker->last_ping.tv_nsec = 999999999;
  let_pass(30);
  become_writeable();
  EXPECT_EQ(fake_lws::frames().size(), 1u);
}

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

TEST_F(WebsockKeepaliveTest, PingComesBeforeAQueuedMessage) {
  make_connected_worker();
  let_pass(31);
  push_from_bus("text");
  forget_records();
  become_writeable();
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre("lws_write wsi1 0 5", "lws_callback_on_writable wsi1",
                          "lws_write wsi1 4 0", "lws_callback_on_writable wsi1"));
  EXPECT_EQ(fake_log::lines().at(0), ping_line(31));
}

TEST_F(WebsockKeepaliveTest, NoPingIsSentWhileNotConnected) {
  make_connecting_worker();
  let_pass(40);
  become_writeable();
  EXPECT_THAT(fake_lws::frames(), IsEmpty());
}

TEST_F(WebsockKeepaliveTest, PingWithoutAPositiveResultIsNotCounted) {
  make_connected_worker();
  for (const int result : {0, -1}) {
    fake_lws::script_write_results({result});
    send_ping();
    EXPECT_EQ(worker->missed_pongs, 0) << result;
  }
  EXPECT_EQ(fake_lws::frames().size(), 2u);
  // Failed or not, it counts for the interval.
  EXPECT_EQ(worker->last_ping.tv_sec, 1060);
}

TEST_F(WebsockKeepaliveTest, PongClearsTheCount) {
  make_connected_worker();
  for (int round = 0; round < 5; ++round) {
    send_ping();
    EXPECT_EQ(worker->missed_pongs, 1);
    fake_log::clear();
    fake_lws::deliver(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
    EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_client_receive_pong", 119)));
    EXPECT_EQ(worker->missed_pongs, 0);
  }
  EXPECT_TRUE(worker->alive);
}

TEST_F(WebsockKeepaliveTest, ServersPingIsNoPong) {
  make_connected_worker();
  send_ping();
  fake_lws::deliver(LWS_CALLBACK_RECEIVE_PONG);
  EXPECT_EQ(worker->missed_pongs, 1);
}

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

TEST_F(WebsockKeepaliveTest, AnyReasonDropsOnceThreePongsAreMissing) {
  for (const int reason : {0, 8, 9, 10, 19, 24, 27, 28, 29, 30, 36, 44, 71, 85, 1000}) {
    SCOPED_TRACE(reason);
    worker.reset();
    make_connected_worker();
    worker->missed_pongs = 3;
    fake_lws::deliver(static_cast<lws_callback_reasons>(reason));
    EXPECT_FALSE(worker->alive);
    EXPECT_EQ(worker->missed_pongs, 0);
    EXPECT_EQ(fake_log::lines().at(0), missing_line(3));
  }
}

TEST_F(WebsockKeepaliveTest, CountAboveTheLimitIsNamedAsItIs) {
  make_connected_worker();
  worker->missed_pongs = 5;
  become_writeable();
  EXPECT_THAT(fake_log::lines(), ElementsAre(missing_line(5)));
  EXPECT_FALSE(worker->alive);
}

TEST_F(WebsockKeepaliveTest, TwoMissingPongsDropNothing) {
  make_connected_worker();
  worker->missed_pongs = 2;
  become_writeable();
  EXPECT_TRUE(worker->alive);
  EXPECT_EQ(worker->missed_pongs, 2);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(WebsockKeepaliveTest, PongThatComesTooLateDropsAllTheSame) {
  make_connected_worker();
  worker->missed_pongs = 3;
  fake_lws::deliver(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
  EXPECT_FALSE(worker->alive);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(missing_line(3), trace_line("process_client_receive_pong", 119)));
}

TEST_F(WebsockKeepaliveTest, WatchdogFiresSixtySecondsAfterTheEstablishment) {
  make_connected_worker();
  worker->running = true;
  let_pass(59);
  EXPECT_TRUE(worker->running);
  fake_log::clear();
  let_pass(1);
  EXPECT_FALSE(worker->running);
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("ping_timeout", 197)));
  // The flags of the connection are left to deinit.
  EXPECT_TRUE(worker->alive);
  EXPECT_TRUE(worker->connected);
}

TEST_F(WebsockKeepaliveTest, WatchdogFiresInTheStepThatFollowsTheService) {
  make_connected_worker();
  worker->running = true;
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

TEST_F(WebsockKeepaliveTest, EveryPingPushesTheWatchdogBack) {
  make_connected_worker();
  worker->running = true;
  for (int ping = 0; ping < 4; ++ping) {
    let_pass(45);
    become_writeable();
    fake_lws::deliver(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
  }
  let_pass(59);
  EXPECT_TRUE(worker->running);
  let_pass(1);
  EXPECT_FALSE(worker->running);
}

TEST_F(WebsockKeepaliveTest, FailedPingPushesTheWatchdogBackToo) {
  make_connected_worker();
  worker->running = true;
  let_pass(50);
  fake_lws::script_write_results({-1});
  become_writeable();
  let_pass(59);
  EXPECT_TRUE(worker->running);
}

TEST_F(WebsockKeepaliveTest, WriteableCallbacksWithoutAPingDoNotPushTheWatchdogBack) {
  make_connected_worker();
  worker->running = true;
  let_pass(20);
  become_writeable();
  let_pass(40);
  EXPECT_FALSE(worker->running);
}

TEST_F(WebsockKeepaliveTest, EstablishmentArmsOneWatchdogOnly) {
  make_connected_worker();
  let_pass(30);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  worker->running = true;
  let_pass(59);
  EXPECT_TRUE(worker->running);
  let_pass(1);
  EXPECT_FALSE(worker->running);
  worker->running = true;
  let_pass(120);
  EXPECT_TRUE(worker->running);
}

TEST_F(WebsockKeepaliveTest, NoWatchdogRunsBeforeTheEstablishment) {
  make_connecting_worker();
  worker->running = true;
  let_pass(120);
  EXPECT_TRUE(worker->running);
}

} // namespace
} // namespace vemk
