#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/fake_lws.h"
#include "log/log_module.h"
#include "unit/websock/websock_fixture.h"
#include "unit/websock/wrapped_libc.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class WebsockCallbacksTest : public WebsockFixture {
protected:
  static std::string incomplete_line(int remaining) {
    return line("websock-roaming->process_client_receive: Get incomplete packet, remaining len " +
                std::to_string(remaining) + "\n");
  }

  static std::string final_line(std::size_t length) {
    return line("websock-roaming->process_client_receive: Recieve final msg len " +
                std::to_string(length) + " from websocket\n");
  }

  std::string received_so_far() const {
    const buffer_info_t &buffer = *worker->rx_buffer;
    return std::string(reinterpret_cast<const char *>(buffer.data), buffer.length);
  }
};

// The dispatch.

TEST_F(WebsockCallbacksTest, ConnectionErrorEndsTheAttempt) {
  make_connecting_worker();
  EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(1)), 0);
  EXPECT_TRUE(worker->closed);
  EXPECT_FALSE(worker->alive);
  EXPECT_FALSE(worker->keep_running(&run_flag));
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_client_connection_error", 41)));
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

TEST_F(WebsockCallbacksTest, BothCloseReasonsDropTheConnection) {
  for (const int reason : {4, 5}) {
    SCOPED_TRACE(reason);
    worker.reset();
    make_connected_worker();
    EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(reason)), 0);
    EXPECT_TRUE(worker->closed);
    EXPECT_FALSE(worker->alive);
    EXPECT_TRUE(worker->connected);
    EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_closed", 76)));
    EXPECT_THAT(take_to_bus(), IsEmpty());
  }
}

TEST_F(WebsockCallbacksTest, ProtocolDestroyLeavesTheConnectionAlive) {
  make_connected_worker();
  EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(28), nullptr), 0);
  EXPECT_TRUE(worker->closed);
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_protocol_destroy", 31)));
}

TEST_F(WebsockCallbacksTest, OtherReasonsDoNothing) {
  make_connected_worker();
  std::vector<int> handled = {1, 3, 4, 5, 8, 9, 10, 28};
  const std::vector<int> of_the_release = fake_lws::release_reasons();
  handled.insert(handled.end(), of_the_release.begin(), of_the_release.end());
  for (int reason = 0; reason < 110; ++reason) {
    if (std::find(handled.begin(), handled.end(), reason) != handled.end())
      continue;
    EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(reason), nullptr), 0) << reason;
    ASSERT_TRUE(worker->alive) << reason;
    ASSERT_FALSE(worker->closed) << reason;
  }
  EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(1000), nullptr), 0);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  EXPECT_TRUE(worker->alive);
  EXPECT_TRUE(worker->connected);
  EXPECT_FALSE(worker->closed);
}

TEST_F(WebsockCallbacksTest, CallbacksReachTheWorkerFromInsideAStep) {
  make_connecting_worker();
  fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED); });
  fake_lws::script_service([] { fake_lws::deliver(fake_lws::closed_reason); });
  worker->run_once();
  EXPECT_TRUE(worker->connected);
  EXPECT_TRUE(worker->keep_running(&run_flag));
  worker->run_once();
  EXPECT_FALSE(worker->keep_running(&run_flag));
}

// Establishment.

TEST_F(WebsockCallbacksTest, EstablishmentTakesItsStepsInOrder) {
  make_worker(2, 60);
  worker->next_delay();
  worker->_connect();
  forget_records();
  fake_libc::advance_seconds(3);
  int pushes = 0;
  ws_to_bus.set_notify([&] {
    ++pushes;
    EXPECT_TRUE(worker->connected);
    EXPECT_EQ(worker->current_delay, 2u);
    EXPECT_NE(worker->last_ping.tv_sec, 1003);
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(trace_line("process_client_established", 58),
                            line("Connection established - reset connection delay\n")));
    EXPECT_THAT(fake_lws::calls(), IsEmpty());
    // The hook is already in place.
    push_from_bus("wakes");
    EXPECT_EQ(fake_lws::calls().size(), 1u);
  });
  EXPECT_EQ(fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED), 0);
  EXPECT_EQ(pushes, 1);
  EXPECT_EQ(worker->last_ping.tv_sec, 1003);
  EXPECT_EQ(fake_lws::calls().back(), "lws_callback_on_writable wsi1");
  EXPECT_EQ(fake_lws::calls().size(), 2u);
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status));
  EXPECT_EQ(fake_log::lines().size(), 2u);
}

TEST_F(WebsockCallbacksTest, EstablishmentKeepsTheCountOfMissedPongs) {
  make_connecting_worker();
  worker->missed_pongs = 2;
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(worker->missed_pongs, 2);
  EXPECT_TRUE(worker->alive);
}

TEST_F(WebsockCallbacksTest, PushBeforeTheEstablishmentWakesNobody) {
  make_connecting_worker();
  push_from_bus("early");
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

TEST_F(WebsockCallbacksTest, WriteableIsRequestedOnlyWhileConnected) {
  make_connected_worker();
  worker->request_writeable(fake_lws::connection());
  EXPECT_EQ(fake_lws::calls().size(), 1u);
  worker->connected = false;
  worker->request_writeable(fake_lws::connection());
  push_from_bus("unheard");
  EXPECT_EQ(fake_lws::calls().size(), 1u);
}

// Receiving.

TEST_F(WebsockCallbacksTest, WholeMessageGoesToTheBus) {
  make_connected_worker();
  EXPECT_EQ(fake_lws::deliver_piece("hello"), 0);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(trace_line("process_client_receive", 87), final_line(5),
                          line("websock-roaming->Send to Queue\n"), dump_line("hello")));
  EXPECT_THAT(take_to_bus(), ElementsAre("hello"));
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

TEST_F(WebsockCallbacksTest, BytesArriveAsTheyAre) {
  make_connected_worker();
  const std::string bytes("\0\xFF%n\xC3\xA4\n\0", 8);
  fake_lws::deliver_piece(bytes);
  EXPECT_THAT(take_to_bus(), ElementsAre(bytes));
}

TEST_F(WebsockCallbacksTest, ThreeFragmentsAreJoinedAfterTheLast) {
  make_connected_worker();
  fake_lws::set_piece(0, false);
  EXPECT_EQ(fake_lws::deliver_piece("one "), 0);
  EXPECT_EQ(fake_lws::deliver_piece("two "), 0);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("three");
  EXPECT_THAT(take_to_bus(), ElementsAre("one two three"));
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(trace_line("process_client_receive", 87), incomplete_line(0),
                          trace_line("process_client_receive", 87), incomplete_line(0),
                          trace_line("process_client_receive", 87), final_line(13),
                          line("websock-roaming->Send to Queue\n"), dump_line("one two three")));
}

TEST_F(WebsockCallbacksTest, ChunksOfTheFinalFragmentAreJoinedWhenNothingRemains) {
  make_connected_worker();
  fake_lws::set_piece(4096, true);
  fake_lws::deliver_piece(std::string(4096, 'a'));
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_THAT(fake_log::lines(), Contains(incomplete_line(4096)));
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece(std::string(4096, 'b'));
  EXPECT_THAT(take_to_bus(), ElementsAre(std::string(4096, 'a') + std::string(4096, 'b')));
}

TEST_F(WebsockCallbacksTest, PieceOfAFragmentWithRestIsIncomplete) {
  make_connected_worker();
  fake_lws::set_piece(1, false);
  fake_lws::deliver_piece("x");
  EXPECT_THAT(fake_log::lines(), Contains(incomplete_line(1)));
  EXPECT_EQ(received_so_far(), "x");
}

TEST_F(WebsockCallbacksTest, MessagesKeepTheirOrder) {
  make_connected_worker();
  for (const char *text : {"1", "2", "3"})
    fake_lws::deliver_piece(text);
  EXPECT_THAT(take_to_bus(), ElementsAre("1", "2", "3"));
}

TEST_F(WebsockCallbacksTest, QueuedMessageIsNeverWrittenToAgain) {
  make_connected_worker();
  fake_lws::deliver_piece("first");
  const auto first = ws_to_bus.try_pop();
  EXPECT_NE(worker->rx_buffer, first);
  EXPECT_EQ(worker->rx_buffer->length, 0u);
  fake_lws::deliver_piece("second");
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(first->data), first->length), "first");
}

TEST_F(WebsockCallbacksTest, ReceivedMessageRunsTheBusQueuesHook) {
  make_connected_worker();
  int wakeups = 0;
  ws_to_bus.set_notify([&] { ++wakeups; });
  fake_lws::deliver_piece("x");
  EXPECT_EQ(wakeups, 1);
}

TEST_F(WebsockCallbacksTest, EmptyMessageIsRejectedAndTheConnectionStays) {
  make_connected_worker();
  char byte = 'x';
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, &byte, 0), -1);
  EXPECT_EQ(fake_lws::deliver_piece(""), 0);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_client_receive", 87),
                                             trace_line("process_client_receive", 87)));
}

TEST_F(WebsockCallbacksTest, NullLastPieceIsRejected) {
  make_connected_worker();
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, nullptr, 5), -1);
  EXPECT_EQ(fake_lws::deliver_null_piece(5), 0);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_EQ(worker->rx_buffer->length, 0u);
}

// Common servers end a streamed message with an empty last frame: what came before it waits for the
// next message and is delivered in front of it.
TEST_F(WebsockCallbacksTest, EmptyLastPieceJoinsTheMessageToTheNextOne) {
  make_connected_worker();
  fake_lws::set_piece(0, false);
  fake_lws::deliver_piece("begun ");
  fake_lws::set_piece(0, true);
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, nullptr, 0), -1);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_EQ(received_so_far(), "begun ");
  fake_lws::deliver_piece("next");
  EXPECT_THAT(take_to_bus(), ElementsAre("begun next"));
}

TEST_F(WebsockCallbacksTest, EmptyMiddlePieceChangesNothing) {
  make_connected_worker();
  fake_lws::set_piece(0, false);
  fake_lws::deliver_piece("a");
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, nullptr, 0), 0);
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("b");
  EXPECT_THAT(take_to_bus(), ElementsAre("ab"));
}

TEST_F(WebsockCallbacksTest, CutOffMessageIsFollowedByTheNextConnectionsBytes) {
  make_connected_worker();
  fake_lws::set_piece(100, true);
  fake_lws::deliver_piece("cut off, ");
  fake_lws::deliver(fake_lws::closed_reason);
  worker->deinit();
  worker->init();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  take_to_bus();
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("then whole");
  EXPECT_THAT(take_to_bus(), ElementsAre("cut off, then whole"));
}

TEST_F(WebsockCallbacksTest, NoMemoryForTheLastPieceDropsTheMessage) {
  make_connected_worker();
  fake_lws::set_piece(0, false);
  fake_lws::deliver_piece("lost");
  const auto partial = worker->rx_buffer;
  fake_lws::set_piece(0, true);
  forget_records();
  {
    const wrapped_libc::memory_shortage shortage(1);
    char piece[] = "too much";
    EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, piece, 8), -1);
  }
  EXPECT_THAT(
      fake_log::lines(),
      ElementsAre(trace_line("process_client_receive", 87),
                  line_of("buffer-info", "append:95 Can't alloc memory\n"),
                  line("websock-roaming->process_client_receive: can't receive message\n")));
  EXPECT_NE(worker->rx_buffer, partial);
  EXPECT_EQ(worker->rx_buffer->length, 0u);
  EXPECT_TRUE(worker->alive);
  fake_lws::deliver_piece("next");
  EXPECT_THAT(take_to_bus(), ElementsAre("next"));
}

TEST_F(WebsockCallbacksTest, LostMessageIsAnErrorLine) {
  g_log_level = log_category_error;
  make_connected_worker();
  {
    const wrapped_libc::memory_shortage shortage(1);
    EXPECT_EQ(fake_lws::deliver_piece("lost"), 0);
  }
  EXPECT_THAT(fake_log::lines(),
              Contains(line("websock-roaming->process_client_receive: can't receive message\n")));
}

TEST_F(WebsockCallbacksTest, NoMemoryForAMiddlePieceKeepsTheRest) {
  make_connected_worker();
  fake_lws::set_piece(0, false);
  fake_lws::deliver_piece("kept ");
  {
    const wrapped_libc::memory_shortage shortage(1);
    EXPECT_EQ(fake_lws::deliver_piece("lost "), 0);
  }
  EXPECT_THAT(fake_log::lines(), Not(Contains(line("websock-roaming->process_client_receive: "
                                                   "can't receive message\n"))));
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("end");
  EXPECT_THAT(take_to_bus(), ElementsAre("kept end"));
}

// Sending from the queue.

TEST_F(WebsockCallbacksTest, WriteableCallbackSendsOneMessageAndAsksForTheNext) {
  make_connected_worker();
  push_from_bus("first");
  push_from_bus("second");
  forget_records();
  EXPECT_EQ(fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE), 0);
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre("lws_write wsi1 5 0", "lws_callback_on_writable wsi1"));
  EXPECT_THAT(
      fake_log::lines(),
      ElementsAre(line("websock-roaming->From queue\n"), dump_line("first"),
                  line("websock-roaming->lws_send:Send msg type [0] len [5/5]  to websocket\n")));
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  ASSERT_EQ(fake_lws::frames().size(), 2u);
  EXPECT_EQ(fake_lws::frames()[0].payload, "first");
  EXPECT_EQ(fake_lws::frames()[1].payload, "second");
  EXPECT_THAT(take_to_bus(), IsEmpty());
}

TEST_F(WebsockCallbacksTest, WriteableCallbackWithoutAMessageOnlyAsksForTheNext) {
  make_connected_worker();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(WebsockCallbacksTest, MessageKeptFromTheServerIsFollowedByTheNextRequest) {
  make_connected_worker();
  push_from_bus(status_request);
  forget_records();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status));
}

TEST_F(WebsockCallbacksTest, FailedWriteLosesTheMessage) {
  make_connected_worker();
  push_from_bus("lost");
  fake_lws::script_write_results({-1});
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_EQ(fake_lws::frames().size(), 1u);
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(fake_log::lines(),
              Contains(line("websock-roaming->lws_send:Can't send msg type [0] to websocket\n")));
}

} // namespace
} // namespace vemk
