#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "unit/websock/websock_fixture.h"

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

// Reasons 1, 4, 5, 28 and the release's own log their trace, set `closed`; 28 leaves `alive`.
// Reason 45 of a handshake without an answer was logged as if there had been a connection.
TEST_F(WebsockCallbacksTest, EveryEndSetsClosedAndAllButProtocolDestroyEndTheSteps) {
  struct end_t {
    int reason;
    bool is_connected;
    std::string trace;
    bool stays_alive;
  };
  const std::string error = trace_line("process_client_connection_error", 41);
  const std::string closed = trace_line("process_closed", 76);
  std::vector<end_t> ends = {{1, false, error, false},
                             {4, true, closed, false},
                             {5, true, closed, false},
                             {fake_lws::closed_reason, true, closed, false},
                             {28, true, trace_line("process_protocol_destroy", 31), true}};
  if (LWS_LIBRARY_VERSION_NUMBER >= 4001000)
    ends.push_back({45, false, error, false});
  for (const end_t &end : ends) {
    SCOPED_TRACE(end.reason);
    worker.reset();
    if (end.is_connected)
      make_connected_worker();
    else
      make_connecting_worker();
    take_to_bus();
    EXPECT_EQ(fake_lws::deliver(static_cast<lws_callback_reasons>(end.reason)), 0);
    EXPECT_TRUE(worker->closed);
    EXPECT_EQ(worker->alive, end.stays_alive);
    EXPECT_EQ(worker->keep_running(&run_flag), end.stays_alive);
    EXPECT_EQ(worker->connected, end.is_connected);
    EXPECT_TRUE(worker->running);
    EXPECT_THAT(fake_log::lines(), ElementsAre(end.trace));
    EXPECT_THAT(fake_lws::calls(), IsEmpty());
    EXPECT_THAT(take_to_bus(), IsEmpty());
  }
}

// Of 0 to 129 and 1000 only 1, 3, 4, 5, 8, 9, 10, 28 and the release's do, call or log anything.
TEST_F(WebsockCallbacksTest, ReasonsWithoutAHandlerDoNothing) {
  make_busy_worker();
  std::set<int> handled = {1, 3, 4, 5, 8, 9, 10, 28};
  for (const int reason : fake_lws::release_reasons())
    handled.insert(reason);
  for (int reason = 0; reason < 130; ++reason) {
    if (handled.count(reason) == 0)
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

// The bus-to-service queue's notify is destroyed, with what it holds, by establishment and deinit.
TEST_F(WebsockCallbacksTest, EstablishmentAndDeinitReleaseTheEarlierHook) {
  make_connecting_worker();
  const auto held = std::make_shared<int>(0);
  bus_to_ws.set_notify([held] {});
  ASSERT_EQ(held.use_count(), 2);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(held.use_count(), 1);
  bus_to_ws.set_notify([held] {});
  worker->deinit();
  EXPECT_EQ(held.use_count(), 1);
}

// Neither a push nor request_writeable reaches the library while `connected` is false.
TEST_F(WebsockCallbacksTest, WriteableIsRequestedOnlyWhileConnected) {
  make_connecting_worker();
  push_from_bus("early");
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  fake_lws::calls.clear();
  worker->request_writeable(fake_lws::connection());
  EXPECT_THAT(fake_lws::calls(), ElementsAre(wake_call("context1", "wsi1")));
  worker->connected = false;
  fake_lws::calls.clear();
  worker->request_writeable(fake_lws::connection());
  push_from_bus("unheard");
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// Receiving.

// One final piece: trace 87, final line with its length, "Send to Queue", dump, one push.
TEST_F(WebsockCallbacksTest, WholeMessageGoesToTheBus) {
  make_connected_worker();
  int wakeups = 0;
  ws_to_bus.set_notify([&] {
    ++wakeups;
    EXPECT_EQ(fake_log::lines(), reception_lines("hello"));
    // The buffer is replaced after the push.
    EXPECT_EQ(ws_to_bus.items.back(), worker->rx_buffer);
  });
  EXPECT_EQ(fake_lws::deliver_piece("hello"), 0);
  EXPECT_EQ(wakeups, 1);
  EXPECT_EQ(fake_log::lines(), reception_lines("hello"));
  EXPECT_THAT(take_to_bus(), ElementsAre("hello"));
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// Messages keep their order, NUL, 0xFF, "%n", UTF-8 and newline; nothing is added.
TEST_F(WebsockCallbacksTest, BytesArriveAsTheyAre) {
  make_connected_worker();
  const std::string bytes("\0\xFF%n\xC3\xA4\n\0", 8);
  for (const std::string &text : {std::string("1"), bytes, std::string("3")})
    fake_lws::deliver_piece(text);
  EXPECT_THAT(take_to_bus(), ElementsAre("1", bytes, "3"));
}

// Three fragments are queued once, joined, after the third; two log "remaining len 0".
TEST_F(WebsockCallbacksTest, ThreeFragmentsAreJoinedAfterTheLast) {
  make_connected_worker();
  std::vector<std::string> expected;
  for (const char *part : {"one ", "two "}) {
    deliver_middle_piece(part);
    expected.insert(expected.end(), {trace_line("process_client_receive", 87), incomplete_line(0)});
  }
  EXPECT_EQ(fake_log::lines(), expected);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  forget_records();
  fake_lws::deliver_piece("three");
  EXPECT_THAT(take_to_bus(), ElementsAre("one two three"));
  EXPECT_EQ(fake_log::lines(), reception_lines("one two three"));
}

// With 4096 or 1 bytes to come a piece is kept, final or not: "remaining len 4096" and "... 1".
TEST_F(WebsockCallbacksTest, PiecesWithARestAreJoinedWhenNothingRemains) {
  make_connected_worker();
  const std::string chunk(4096, 'a');
  fake_lws::set_piece(4096, true);
  fake_lws::deliver_piece(chunk);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_THAT(fake_log::lines(), Contains(incomplete_line(4096)));
  fake_lws::set_piece(1, false);
  fake_lws::deliver_piece("x");
  EXPECT_THAT(fake_log::lines(), Contains(incomplete_line(1)));
  EXPECT_EQ(received_so_far(), chunk + "x");
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("end");
  EXPECT_THAT(take_to_bus(), ElementsAre(chunk + "xend"));
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

// A final piece of length 0, or of 5 without data, gives -1, the dispatcher 0; `alive` stays.
TEST_F(WebsockCallbacksTest, EmptyMessageIsRejectedAndTheConnectionStays) {
  make_connected_worker();
  char byte = 'x';
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, &byte, 0), -1);
  EXPECT_EQ(fake_lws::deliver_piece(""), 0);
  EXPECT_EQ(receive_null(5), -1);
  EXPECT_EQ(fake_lws::deliver_null_piece(5), 0);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_EQ(received_so_far(), "");
  EXPECT_TRUE(worker->alive);
  EXPECT_EQ(fake_log::lines(),
            std::vector<std::string>(4, trace_line("process_client_receive", 87)));
}

// After an empty last piece "begun " stays in the receive buffer and leads the next message.
// Common servers end a streamed message with an empty last frame: what came before it waits for the
// next message and is delivered in front of it.
TEST_F(WebsockCallbacksTest, EmptyLastPieceJoinsTheMessageToTheNextOne) {
  make_connected_worker();
  deliver_middle_piece("begun ");
  EXPECT_EQ(receive_null(0), -1);
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
  EXPECT_EQ(receive_null(0), 0);
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
  reconnect();
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("then whole");
  EXPECT_THAT(take_to_bus(), ElementsAre("cut off, then whole"));
}

// A failed append logs trace and two error lines, "append:95 ..." and "can't receive message".
TEST_F(WebsockCallbacksTest, NoMemoryForTheLastPieceDropsTheMessage) {
  for (const std::uint32_t mask : {0x0Fu, std::uint32_t{log_category_error}}) {
    g_log_level = mask;
    make_connected_worker();
    deliver_middle_piece("lost");
    const auto partial = worker->rx_buffer;
    forget_records();
    {
      const fake_memory::shortage shortage;
      char piece[] = "too much";
      EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, piece, 8), -1);
    }
    std::vector<std::string> expected = {
        trace_line("process_client_receive", 87), no_memory_line(),
        line("websock-roaming->process_client_receive: can't receive message\n")};
    if (mask == log_category_error)
      expected.erase(expected.begin());
    EXPECT_EQ(fake_log::lines(), expected);
    EXPECT_NE(worker->rx_buffer, partial);
    EXPECT_EQ(received_so_far(), "");
    EXPECT_TRUE(worker->alive);
    fake_lws::deliver_piece("next");
    EXPECT_THAT(take_to_bus(), ElementsAre("next"));
  }
}

// A failed append of a middle piece gives 0 without a line of the worker; the others are joined.
TEST_F(WebsockCallbacksTest, NoMemoryForAMiddlePieceKeepsTheRest) {
  make_connected_worker();
  deliver_middle_piece("kept ");
  forget_records();
  {
    const fake_memory::shortage shortage;
    deliver_middle_piece("lost ");
  }
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_client_receive", 87),
                                             incomplete_line(0), no_memory_line()));
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
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->From queue\n"),
                                             dump_line("first"), sent_line(0, 5, 5)));
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

// A status request is logged, answered "connected" with its queue unlocked, and not sent.
TEST_F(WebsockCallbacksTest, RequestIsLoggedAndThenAnsweredInPlaceOfSent) {
  make_connected_worker();
  push_from_bus(R"({"service":"INTERNAL-IPC","cmd":"STATUS"})");
  forget_records();
  int answers = 0;
  ws_to_bus.set_notify([&] {
    ++answers;
    ASSERT_EQ(fake_log::lines().size(), 2u);
    EXPECT_EQ(fake_log::lines()[0], line("websock-roaming->From queue\n"));
    EXPECT_THAT(fake_log::lines()[1], StartsWith(log_line("buffer-info", "Buffer info dump:\n\t")));
    EXPECT_TRUE(std::unique_lock<std::mutex>(bus_to_ws.lock, std::try_to_lock).owns_lock());
  });
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  EXPECT_EQ(answers, 1);
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
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->From queue\n"),
                                             dump_line("lost"), failed_line(0)));
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
