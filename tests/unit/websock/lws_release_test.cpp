#include "websock/lws_release.h"

#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LwsReleaseTest : public WebsockFixture {
protected:
  /// Pushes as the bus worker does, on a thread of its own.
  void push_from_another_thread() {
    std::thread pusher([this] { push_from_bus("text"); });
    pusher.join();
  }
};

/// Leaves the process no descriptor for as long as it lives.
class descriptor_shortage {
public:
  descriptor_shortage() {
    getrlimit(RLIMIT_NOFILE, &limit);
    lowest_free = dup(STDERR_FILENO);
    const rlimit none_left{static_cast<rlim_t>(lowest_free), limit.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none_left), 0);
  }

  ~descriptor_shortage() {
    setrlimit(RLIMIT_NOFILE, &limit);
    close(lowest_free);
  }

private:
  rlimit limit{};
  int lowest_free;
};

#if LWS_LIBRARY_VERSION_NUMBER < 2004000 || LWS_LIBRARY_VERSION_NUMBER >= 4003000

// Without a free descriptor the library is not asked for a context, and there is none.
// API 2.0 then closed descriptor 0, and 4.3 crashed.
TEST_F(LwsReleaseTest, NoContextIsMadeWithoutDescriptors) {
  lws_context_creation_info info{};
  const lws_context *const made = [&info] {
    const descriptor_shortage shortage;
    return create_context(info);
  }();
  EXPECT_EQ(made, nullptr);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

#endif

// Each step lets lws_service return after at most 500 ms, by a timer of its own where need be.
// One release ignores the limit that it is given.
TEST_F(LwsReleaseTest, ServiceIsLimitedToHalfASecond) {
  make_connecting_worker();
  for (int step = 0; step < 2; ++step) {
    forget_records();
    std::size_t timers_during_service = 0;
    fake_lws::script_service([&] { timers_during_service = fake_lws::pending_timers(); });
    EXPECT_TRUE(worker->run_once());
    EXPECT_EQ(fake_lws::calls(), service_calls("context1"));
    EXPECT_EQ(timers_during_service, fake_lws::ignores_limits ? 1u : 0u);
    EXPECT_EQ(fake_lws::pending_timers(), 0u);
  }
}

// A limit of 20 ms is scheduled as 20000 us, on the one context.
TEST_F(LwsReleaseTest, LimitIsTheOneThatWasAsked) {
  make_connecting_worker();
  service_for_at_most(worker->context, 20);
  EXPECT_EQ(fake_lws::calls(), service_calls("context1", 20));
}

// An attempt without a report fails after 640 s, with a library before 4.0 after 70.
// After a redirect to a place without an address, API 2.0 forgot the attempt, and the daemon waited
// for ever.
TEST_F(LwsReleaseTest, AttemptWithoutAReportIsGivenUp) {
  make_connecting_worker();
  let_pass(attempt_limit_seconds - 1);
  EXPECT_TRUE(worker->keep_running(&run_flag));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  let_pass(1);
  EXPECT_TRUE(worker->closed);
  EXPECT_FALSE(worker->keep_running(&run_flag));
  EXPECT_THAT(fake_log::lines(), ElementsAre(trace_line("process_client_connection_error", 41)));
  EXPECT_EQ(attempt_limit_seconds, LWS_LIBRARY_VERSION_NUMBER >= 4000000 ? 640 : 70);
}

// An established connection is not given up, however long its attempt took and it lasts.
TEST_F(LwsReleaseTest, EstablishedConnectionIsNoAttemptAnyMore) {
  make_connecting_worker();
  let_pass(attempt_limit_seconds - 1);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  let_pass(2 * attempt_limit_seconds);
  EXPECT_TRUE(worker->keep_running(&run_flag));
}

// The limit begins anew with each attempt, and a stopped worker has none.
TEST_F(LwsReleaseTest, EveryAttemptHasALimitOfItsOwn) {
  make_connecting_worker();
  let_pass(attempt_limit_seconds - 1);
  worker->deinit();
  let_pass(10);
  EXPECT_FALSE(worker->closed);
  ASSERT_TRUE(worker->_connect());
  let_pass(attempt_limit_seconds - 1);
  EXPECT_TRUE(worker->keep_running(&run_flag));
  let_pass(1);
  EXPECT_FALSE(worker->keep_running(&run_flag));
}

#if LWS_LIBRARY_VERSION_NUMBER >= 4001000

// The library waits 20 s for a handshake, and more for an address, so that it tries the next one.
// It gave up after its own 5 s, so that a service that took 8 s to answer was never connected.
TEST_F(LwsReleaseTest, ServerHasTwentySecondsForTheHandshake) {
  make_connecting_worker();
  const fake_lws::creation_info_t info = fake_lws::creation_infos().at(0);
  EXPECT_EQ(info.timeout_secs, 20u);
  EXPECT_GT(info.connect_timeout_secs, info.timeout_secs);
}

#endif

#if LWS_LIBRARY_VERSION_NUMBER >= 2003000

// The protocol allows at least 1 MiB per write to the socket, not the library's 4096 bytes.
TEST_F(LwsReleaseTest, LibraryDoesNotCutFramesIntoSmallWrites) {
  make_connecting_worker();
  EXPECT_GE(fake_lws::creation_infos().at(0).protocol.tx_packet_size, 1024u * 1024u);
}

#endif

#if LWS_LIBRARY_VERSION_NUMBER >= 4000000

// The attempt carries the library's flag against following a redirect, and none for TLS.
// A server's redirect once led the daemon to any other, and a host that begins with "+" crashed it.
TEST_F(LwsReleaseTest, RedirectsAreNotFollowed) {
  make_connecting_worker();
  EXPECT_NE(fake_lws::connect_infos().at(0).ssl_connection & LCCSCF_HTTP_NO_FOLLOW_REDIRECT, 0);
  EXPECT_EQ(fake_lws::connect_infos().at(0).ssl_connection & LCCSCF_USE_SSL, 0);
}

#else

/// A pair of connected sockets, one of them the library's.
class LwsSocketTest : public LwsReleaseTest {
protected:
  LwsSocketTest() : sockets{-1, -1} {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sockets), 0);
  }
  ~LwsSocketTest() override {
    for (const int end : sockets)
      close(end);
  }

  /// The size of its send buffer, or -1 when it is not a socket.
  int send_buffer() const {
    int size = -1;
    socklen_t length = sizeof size;
    getsockopt(sockets[0], SOL_SOCKET, SO_SNDBUF, &size, &length);
    return size;
  }

  int sockets[2];
};

// Before 4.0 a socket made after the opening request is spoilt, without another free descriptor.
// A redirect once made a connection to wherever it pointed.
TEST_F(LwsSocketTest, RedirectsAreNotFollowed) {
  make_connecting_worker();
  fake_lws::set_socket(sockets[0]);
  fake_lws::deliver(LWS_CALLBACK_WSI_CREATE);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER);
  EXPECT_NE(send_buffer(), -1);
  worker->deinit();
  ASSERT_TRUE(worker->_connect());
  fake_lws::deliver(LWS_CALLBACK_WSI_CREATE);
  EXPECT_NE(send_buffer(), -1);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER);
  fake_lws::deliver(LWS_CALLBACK_PROTOCOL_INIT);
  EXPECT_NE(send_buffer(), -1);
  const descriptor_shortage shortage;
  fake_lws::deliver(LWS_CALLBACK_WSI_CREATE);
  EXPECT_EQ(send_buffer(), -1);
}

// Before 4.0 the library's send buffer of 4112 bytes is lifted to at least 128 KiB.
// Messages of some megabytes did not leave before the watchdog ended the connection.
TEST_F(LwsSocketTest, EstablishedConnectionHasALargeSendBuffer) {
  make_connecting_worker();
  fake_lws::set_socket(sockets[0]);
  const int small = 4112;
  ASSERT_EQ(setsockopt(sockets[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_GE(send_buffer(), 128 * 1024);
}

#endif

#if LWS_LIBRARY_VERSION_NUMBER < 2003000

// While part of a message waits, a step calls lws_service with 0 ms again until all has left.
// 2.6 MiB once took longer than the watchdog allows, at 4096 bytes a step.
TEST_F(LwsSocketTest, RestOfAMessageLeavesInTheSameStep) {
  make_connected_worker();
  fake_lws::set_socket(sockets[0]);
  fake_lws::hold_back_rest(true);
  fake_lws::script_service([] {});
  fake_lws::script_service([] {});
  fake_lws::script_service([] { fake_lws::hold_back_rest(false); });
  worker->run_once();
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_service context1 500", "lws_service context1 0",
                                             "lws_service context1 0"));
}

// A step ends at 4097 calls, at a full socket, at bytes to read, and with the connection.
TEST_F(LwsSocketTest, RestOfAMessageWaitsForTheSocketAndForWhatArrives) {
  make_connected_worker();
  fake_lws::set_socket(sockets[0]);
  fake_lws::hold_back_rest(true);
  worker->run_once();
  EXPECT_EQ(fake_lws::calls().size(), 4097u);
  ASSERT_EQ(write(sockets[1], "x", 1), 1);
  forget_records();
  worker->run_once();
  EXPECT_EQ(fake_lws::calls(), service_calls("context1"));
  char received = 0;
  ASSERT_EQ(read(sockets[0], &received, 1), 1);
  const std::string filler(4096, 'x');
  while (write(sockets[0], filler.data(), filler.size()) > 0) {
  }
  forget_records();
  worker->run_once();
  EXPECT_EQ(fake_lws::calls(), service_calls("context1"));
  fake_lws::deliver(LWS_CALLBACK_CLOSED);
  char emptied[4096];
  while (read(sockets[1], emptied, sizeof emptied) > 0) {
  }
  forget_records();
  worker->run_once();
  EXPECT_EQ(fake_lws::calls(), service_calls("context1"));
}

#endif

#if LWS_LIBRARY_VERSION_NUMBER >= 3000000

// A push from another thread calls lws_cancel_service and nothing else of the library.
TEST_F(LwsReleaseTest, PushFromAnotherThreadOnlyWakesTheServiceThread) {
  make_connected_worker();
  push_from_another_thread();
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_cancel_service context1"));
}

// Reason 71 asks for a writeable callback of the established connection and logs nothing.
// Reasons 30 and 1 of another connection do not change that.
TEST_F(LwsReleaseTest, WokenServiceThreadAsksForAWriteableCallback) {
  make_connected_worker();
  for (const lws_callback_reasons end :
       {LWS_CALLBACK_WSI_DESTROY, LWS_CALLBACK_CLIENT_CONNECTION_ERROR}) {
    forget_records();
    EXPECT_EQ(fake_lws::deliver(LWS_CALLBACK_EVENT_WAIT_CANCELLED, nullptr), 0);
    EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
    fake_lws::deliver(end, nullptr);
  }
  fake_lws::deliver(LWS_CALLBACK_EVENT_WAIT_CANCELLED, nullptr);
  EXPECT_EQ(fake_lws::calls().size(), 2u);
}

// Reason 71 before the establishment calls nothing of the library.
TEST_F(LwsReleaseTest, WakeupBeforeTheEstablishmentAsksForNothing) {
  make_connecting_worker();
  fake_lws::deliver(LWS_CALLBACK_EVENT_WAIT_CANCELLED, nullptr);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

// After reasons 75, 30 and 1 a push and the wake-up it causes leave the freed connection alone.
// The library frees a connection as soon as it closes, while the queue's hook stays in place until
// the worker stops. A push in that window once reached the freed connection.
TEST_F(LwsReleaseTest, PushBetweenCloseAndStopTouchesNoConnection) {
  const lws_callback_reasons ends[] = {LWS_CALLBACK_CLIENT_CLOSED, LWS_CALLBACK_WSI_DESTROY,
                                       LWS_CALLBACK_CLIENT_CONNECTION_ERROR};
  for (const lws_callback_reasons end : ends) {
    SCOPED_TRACE(end);
    worker.reset();
    make_connected_worker();
    const std::string context = "context" + std::to_string(fake_lws::creation_infos().size());
    fake_lws::deliver(end);
    fake_lws::kill_connection(fake_lws::connection());
    push_from_another_thread();
    EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_cancel_service " + context));
    fake_lws::calls.clear();
    fake_lws::deliver(LWS_CALLBACK_EVENT_WAIT_CANCELLED, nullptr);
    EXPECT_THAT(fake_lws::calls(), IsEmpty());
  }
}

// After a reconnect, reason 71 asks for nothing until the new connection is established.
TEST_F(LwsReleaseTest, WakeupAfterAReconnectConcernsTheNewConnection) {
  make_connected_worker();
  fake_lws::deliver(fake_lws::closed_reason);
  worker->deinit();
  worker->init();
  forget_records();
  fake_lws::deliver(LWS_CALLBACK_EVENT_WAIT_CANCELLED, nullptr);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  fake_lws::calls.clear();
  push_from_another_thread();
  fake_lws::deliver(LWS_CALLBACK_EVENT_WAIT_CANCELLED, nullptr);
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre("lws_cancel_service context2", "lws_callback_on_writable wsi2"));
}

#else

// Before 3.0 a push calls lws_callback_on_writable itself, on any thread.
TEST_F(LwsReleaseTest, PushFromAnotherThreadRequestsAWriteableCallback) {
  make_connected_worker();
  push_from_another_thread();
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
}

// After reasons 4, 1 and 30, and 35 with length 1, a push leaves the freed connection alone.
// The library frees a connection as soon as it closes, while the queue's hook stays in place until
// the worker stops. A push in that window once reached the freed connection.
TEST_F(LwsReleaseTest, PushBetweenCloseAndStopTouchesNoConnection) {
  const std::pair<lws_callback_reasons, std::size_t> ends[] = {
      {LWS_CALLBACK_CLOSED, 0},
      {LWS_CALLBACK_CLIENT_CONNECTION_ERROR, 0},
      {LWS_CALLBACK_WSI_DESTROY, 0},
      {LWS_CALLBACK_LOCK_POLL, 1}};
  for (const auto &[end, length] : ends) {
    SCOPED_TRACE(end);
    worker.reset();
    make_connected_worker();
    fake_lws::deliver(end, fake_lws::connection(), length);
    fake_lws::kill_connection(fake_lws::connection());
    push_from_another_thread();
    EXPECT_THAT(fake_lws::calls(), IsEmpty());
  }
}

// Reason 35 with 0, and the end of another connection, leave the established one usable.
TEST_F(LwsReleaseTest, OtherEventsLeaveTheEstablishedConnectionUsable) {
  make_connected_worker();
  fake_lws::deliver(LWS_CALLBACK_LOCK_POLL);
  fake_lws::deliver(LWS_CALLBACK_LOCK_POLL, nullptr, 1);
  fake_lws::deliver(LWS_CALLBACK_WSI_DESTROY, nullptr);
  push_from_another_thread();
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
}

// The library's callbacks for its locks on the pushing thread do not look for missed pongs.
// The count is the service thread's, and both changed it. They return 0: all else is a failure.
TEST_F(LwsReleaseTest, CallbacksOfThePushingThreadAreNotDispatched) {
  make_connected_worker();
  fake_lws::call_back_for_locks();
  worker->missed_pongs = 3;
  push_from_another_thread();
  EXPECT_EQ(worker->missed_pongs, 3);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  fake_lws::deliver(LWS_CALLBACK_LOCK_POLL);
  EXPECT_EQ(worker->missed_pongs, 0);
}

// Before 3.0 the later releases' reasons 45, 71 and 75 are three of those above 28.
TEST_F(LwsReleaseTest, LaterReasonsMeanNothing) {
  make_connected_worker();
  fake_lws::deliver(static_cast<lws_callback_reasons>(45));
  fake_lws::deliver(static_cast<lws_callback_reasons>(71), nullptr);
  fake_lws::deliver(static_cast<lws_callback_reasons>(75));
  EXPECT_TRUE(worker->alive);
  EXPECT_FALSE(worker->closed);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

#endif

} // namespace
} // namespace vemk
