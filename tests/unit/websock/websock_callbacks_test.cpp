#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
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
using testing::StartsWith;

class WebsockCallbacksTest : public WebsockFixture {
protected:
  /// A connection in the middle of everything that a handler could touch.
  void make_busy_worker() {
    make_connected_worker();
    worker->missed_pongs = 2;
    fake_lws::set_piece(0, false);
    fake_lws::deliver_piece("begun");
    push_from_bus("waiting");
    let_pass(31);
    forget_records();
  }

  /// Delivers the reason to a busy worker, in which nothing may have changed after it.
  void expect_nothing_done(int reason) {
    SCOPED_TRACE(reason);
    EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(reason)), 0);
    EXPECT_TRUE(worker->alive);
    EXPECT_TRUE(worker->connected);
    EXPECT_FALSE(worker->closed);
    EXPECT_EQ(worker->missed_pongs, 2);
    EXPECT_EQ(received_so_far(), "begun");
    EXPECT_EQ(bus_to_ws.items.size(), 1u);
    EXPECT_THAT(ws_to_bus.items, IsEmpty());
    EXPECT_THAT(fake_lws::calls(), IsEmpty());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
  }
};

// The dispatch.

// Reason 1 logs "process_client_connection_error:41", sets `closed` and clears `alive` only.
TEST_F(WebsockCallbacksTest, ConnectionErrorEndsTheAttempt) {
  make_connecting_worker();
  worker->running = true;
  EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(1)), 0);
  EXPECT_TRUE(worker->closed);
  EXPECT_FALSE(worker->alive);
  EXPECT_TRUE(worker->running);
  EXPECT_FALSE(worker->keep_running(&run_flag));
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_client_connection_error", 41)));
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// Reasons 4 and 5 log "process_closed:76", set `closed`, clear `alive`; the other flags stay.
TEST_F(WebsockCallbacksTest, BothCloseReasonsDropTheConnection) {
  for (const int reason : {4, 5}) {
    SCOPED_TRACE(reason);
    worker.reset();
    make_connected_worker();
    worker->running = true;
    EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(reason)), 0);
    EXPECT_TRUE(worker->closed);
    EXPECT_FALSE(worker->alive);
    EXPECT_TRUE(worker->running);
    EXPECT_TRUE(worker->connected);
    EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_closed", 76)));
    EXPECT_THAT(take_to_bus(), IsEmpty());
  }
}

// Reason 28 logs "process_protocol_destroy:31" and sets `closed`; `alive` stays as it is.
TEST_F(WebsockCallbacksTest, ProtocolDestroyLeavesTheConnectionAlive) {
  make_connected_worker();
  EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(28), nullptr), 0);
  EXPECT_TRUE(worker->closed);
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_protocol_destroy", 31)));
}

// The 21 reasons 0, 2, 6, 7 and 11 to 27 change no state, call nothing and log nothing.
TEST_F(WebsockCallbacksTest, ReasonsBelow29WithoutAHandlerDoNothing) {
  make_busy_worker();
  for (const int reason :
       {0, 2, 6, 7, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27})
    expect_nothing_done(reason);
}

// Reasons 29 to 129 and 1000 do nothing, but for those that the release itself has for the client.
TEST_F(WebsockCallbacksTest, ReasonsFrom29OnAreIgnored) {
  make_busy_worker();
  const std::vector<int> of_the_release = fake_lws::release_reasons();
  for (int reason = 29; reason < 130; ++reason) {
    if (std::find(of_the_release.begin(), of_the_release.end(), reason) == of_the_release.end())
      expect_nothing_done(reason);
  }
  expect_nothing_done(1000);
}

// What lws_service reports in a step is handled in it; a close ends the loop before the next step.
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

// Trace 58, hook, delay, log line, "connected", time of the last ping, then a writeable request.
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
  });
  EXPECT_EQ(fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED), 0);
  EXPECT_EQ(pushes, 1);
  EXPECT_EQ(worker->last_ping.tv_sec, 1003);
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre(wake_call("context1", "wsi1"), "lws_callback_on_writable wsi1"));
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status));
  EXPECT_EQ(fake_log::lines().size(), 2u);
}

// The bus-to-service queue's earlier notify is destroyed when the establishment installs a new one.
TEST_F(WebsockCallbacksTest, EstablishmentReleasesTheEarlierHook) {
  make_connecting_worker();
  const auto held = std::make_shared<int>(0);
  bus_to_ws.set_notify([held] {});
  ASSERT_EQ(held.use_count(), 2);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(held.use_count(), 1);
}

// A count of 2 missed pongs is still 2 after an establishment.
TEST_F(WebsockCallbacksTest, EstablishmentKeepsTheCountOfMissedPongs) {
  make_connecting_worker();
  worker->missed_pongs = 2;
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(worker->missed_pongs, 2);
  EXPECT_TRUE(worker->alive);
}

// A push while the attempt still runs calls nothing of the library.
TEST_F(WebsockCallbacksTest, PushBeforeTheEstablishmentWakesNobody) {
  make_connecting_worker();
  push_from_bus("early");
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// With `connected` false neither request_writeable nor a push reaches the library.
TEST_F(WebsockCallbacksTest, WriteableIsRequestedOnlyWhileConnected) {
  make_connected_worker();
  worker->request_writeable(fake_lws::connection());
  EXPECT_THAT(fake_lws::calls(), ElementsAre(wake_call("context1", "wsi1")));
  worker->connected = false;
  fake_lws::clear_calls();
  worker->request_writeable(fake_lws::connection());
  push_from_bus("unheard");
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// Receiving.

// One final piece: trace 87, final line with its length, "Send to Queue", dump, push.
TEST_F(WebsockCallbacksTest, WholeMessageGoesToTheBus) {
  make_connected_worker();
  EXPECT_EQ(fake_lws::deliver_piece("hello"), 0);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(trace_line("process_client_receive", 87), final_line(5),
                          line("websock-roaming->Send to Queue\n"), dump_line("hello")));
  EXPECT_THAT(take_to_bus(), ElementsAre("hello"));
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// NUL, 0xFF, "%n", UTF-8 and newline reach the service-to-bus queue unchanged, nothing is added.
TEST_F(WebsockCallbacksTest, BytesArriveAsTheyAre) {
  make_connected_worker();
  const std::string bytes("\0\xFF%n\xC3\xA4\n\0", 8);
  fake_lws::deliver_piece(bytes);
  EXPECT_THAT(take_to_bus(), ElementsAre(bytes));
}

// Three fragments are queued once, joined, after the third; two log "remaining len 0".
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

// A piece of the final fragment with 4096 bytes to come is kept: "remaining len 4096".
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

// Not final and 1 byte to come: "remaining len 1", and the piece is kept.
TEST_F(WebsockCallbacksTest, PieceOfAFragmentWithRestIsIncomplete) {
  make_connected_worker();
  fake_lws::set_piece(1, false);
  fake_lws::deliver_piece("x");
  EXPECT_THAT(fake_log::lines(), Contains(incomplete_line(1)));
  EXPECT_EQ(received_so_far(), "x");
}

// Three messages stand in the service-to-bus queue in the order of their completion.
TEST_F(WebsockCallbacksTest, MessagesKeepTheirOrder) {
  make_connected_worker();
  for (const char *text : {"1", "2", "3"})
    fake_lws::deliver_piece(text);
  EXPECT_THAT(take_to_bus(), ElementsAre("1", "2", "3"));
}

// A queued message has its buffer for itself: the worker receives the next in a new, empty one.
TEST_F(WebsockCallbacksTest, QueuedMessageIsNeverWrittenToAgain) {
  make_connected_worker();
  fake_lws::deliver_piece("first");
  const auto first = ws_to_bus.try_pop();
  EXPECT_NE(worker->rx_buffer, first);
  EXPECT_EQ(worker->rx_buffer->length, 0u);
  fake_lws::deliver_piece("second");
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(first->data), first->length), "first");
}

// The push runs the queue's notify once, after all log lines, before the buffer is replaced.
TEST_F(WebsockCallbacksTest, ReceivedMessageRunsTheBusQueuesHook) {
  make_connected_worker();
  int wakeups = 0;
  ws_to_bus.set_notify([&] {
    ++wakeups;
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(trace_line("process_client_receive", 87), final_line(1),
                            line("websock-roaming->Send to Queue\n"), dump_line("x")));
    EXPECT_EQ(ws_to_bus.items.back(), worker->rx_buffer);
  });
  fake_lws::deliver_piece("x");
  EXPECT_EQ(wakeups, 1);
}

// A final piece of length 0 gives -1, the dispatcher 0; nothing is queued, `alive` stays.
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

// A final piece of length 5 without data gives -1 and leaves the receive buffer empty.
TEST_F(WebsockCallbacksTest, NullLastPieceIsRejected) {
  make_connected_worker();
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, nullptr, 5), -1);
  EXPECT_EQ(fake_lws::deliver_null_piece(5), 0);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_EQ(worker->rx_buffer->length, 0u);
}

// After an empty last piece "begun " stays in the receive buffer and leads the next message.
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

// A middle piece of length 0 gives 0, and the message is what its other pieces are.
TEST_F(WebsockCallbacksTest, EmptyMiddlePieceChangesNothing) {
  make_connected_worker();
  fake_lws::set_piece(0, false);
  fake_lws::deliver_piece("a");
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, nullptr, 0), 0);
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("b");
  EXPECT_THAT(take_to_bus(), ElementsAre("ab"));
}

// The receive buffer survives deinit and init: the cut-off bytes lead the next message.
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

// A failed append logs trace, "append:95 ..." and "can't receive message", empties and gives -1.
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

// "can't receive message" is written with the error category alone.
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

// A failed append of a middle piece gives 0 without a line of the worker; the others are joined.
TEST_F(WebsockCallbacksTest, NoMemoryForAMiddlePieceKeepsTheRest) {
  make_connected_worker();
  fake_lws::set_piece(0, false);
  fake_lws::deliver_piece("kept ");
  forget_records();
  {
    const wrapped_libc::memory_shortage shortage(1);
    char piece[] = "lost ";
    EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, piece, 5), 0);
  }
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(trace_line("process_client_receive", 87), incomplete_line(0),
                          line_of("buffer-info", "append:95 Can't alloc memory\n")));
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("end");
  EXPECT_THAT(take_to_bus(), ElementsAre("kept end"));
}

// Sending from the queue.

// Two queued messages leave in two writeable callbacks, in order, as frames of type 0.
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

// With an empty queue there is one new request, no frame and no log line, not even a trace.
TEST_F(WebsockCallbacksTest, WriteableCallbackWithoutAMessageOnlyAsksForTheNext) {
  make_connected_worker();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// The handler takes and sends a message and asks again, also while `connected` is false.
TEST_F(WebsockCallbacksTest, WriteableCallbackBeforeTheEstablishmentSendsAllTheSame) {
  make_connecting_worker();
  push_from_bus("early");
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre("lws_write wsi1 5 0", "lws_callback_on_writable wsi1"));
}

// The bus-to-service queue's mutex is free while the handler of its message runs.
TEST_F(WebsockCallbacksTest, QueueIsUnlockedWhileItsMessageIsHandled) {
  make_connected_worker();
  push_from_bus(status_request);
  bool was_free = false;
  ws_to_bus.set_notify([&] {
    const std::unique_lock<std::mutex> free(bus_to_ws.lock, std::try_to_lock);
    was_free = free.owns_lock();
  });
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_TRUE(was_free);
}

// "From queue" and the dump of a status request are in the log before its answer is queued.
TEST_F(WebsockCallbacksTest, RequestIsLoggedBeforeItIsAnswered) {
  make_connected_worker();
  push_from_bus(R"({"service":"INTERNAL-IPC","cmd":"STATUS"})");
  ws_to_bus.set_notify([&] {
    ASSERT_EQ(fake_log::lines().size(), 2u);
    EXPECT_EQ(fake_log::lines()[0], line("websock-roaming->From queue\n"));
    EXPECT_THAT(fake_log::lines()[1], StartsWith(line_of("buffer-info", "Buffer info dump:\n\t")));
  });
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status));
}

// A status request is answered "connected", not sent, and followed by a writeable request.
TEST_F(WebsockCallbacksTest, MessageKeptFromTheServerIsFollowedByTheNextRequest) {
  make_connected_worker();
  push_from_bus(status_request);
  forget_records();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status));
}

// After a result of -1 the message is not sent again; the connection stays.
TEST_F(WebsockCallbacksTest, FailedWriteLosesTheMessage) {
  make_connected_worker();
  push_from_bus("lost");
  fake_lws::script_write_results({-1});
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_EQ(fake_lws::frames().size(), 1u);
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(
      fake_log::lines(),
      ElementsAre(line("websock-roaming->From queue\n"), dump_line("lost"),
                  line("websock-roaming->lws_send:Can't send msg type [0] to websocket\n")));
}

// What handlers throw.

// std::bad_alloc out of a handler passes through the library and out of run_once.
TEST_F(WebsockCallbacksTest, ExceptionOfAHandlerLeavesTheStep) {
  make_connected_worker();
  ws_to_bus.set_notify([] { throw std::bad_alloc(); });
  fake_lws::script_service([] { fake_lws::deliver_piece("x"); });
  EXPECT_THROW(worker->run_once(), std::bad_alloc);
}

/// Suites of this kind run before all others, so that no worker has bound the callback yet.
class WebsockUnboundDeathTest : public WebsockFixture {
protected:
  /// What libwebsockets calls. Only a bound worker tells, hence one in a process of its own.
  lws_protocol_callback library_callback() {
    void *const shared = mmap(nullptr, sizeof(lws_protocol_callback), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *const told = static_cast<lws_protocol_callback *>(shared);
    const pid_t child = fork();
    if (child == 0) {
      make_worker();
      *told = worker->protocol_callback;
      _exit(0);
    }
    waitpid(child, nullptr, 0);
    const lws_protocol_callback callback = *told;
    munmap(shared, sizeof(lws_protocol_callback));
    return callback;
  }

  bool unbound_callback_throws() {
    const lws_protocol_callback callback = library_callback();
    try {
      callback(nullptr, LWS_CALLBACK_CLIENT_ESTABLISHED, nullptr, nullptr, 0);
    } catch (const std::bad_function_call &) {
      return true;
    }
    return false;
  }
};

// The library's callback throws std::bad_function_call as long as no worker has bound it.
TEST_F(WebsockUnboundDeathTest, CallbackWithoutAWorkerThrows) {
  // Tried once: when the tests are repeated, a worker of the first round has bound the callback.
  static const bool throws = unbound_callback_throws();
  EXPECT_TRUE(throws);
}

} // namespace
} // namespace vemk
