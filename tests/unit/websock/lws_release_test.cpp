#include "websock/lws_release.h"

#include <string>
#include <thread>

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
    EXPECT_EQ(timers_during_service, fake_lws::wakes_by_cancelling ? 1u : 0u);
    EXPECT_EQ(fake_lws::pending_timers(), 0u);
  }
}

// A limit of 20 ms is scheduled as 20000 us, on the one context.
TEST_F(LwsReleaseTest, LimitIsTheOneThatWasAsked) {
  make_connecting_worker();
  service_for_at_most(worker->context, 20);
  EXPECT_EQ(fake_lws::calls(), service_calls("context1", 20));
}

#if LWS_LIBRARY_VERSION_NUMBER >= 4000000

// The library waits 20 s for a handshake, and more for an address, so that it tries the next one.
// It gave up after its own 5 s, so that a service that took 8 s to answer was never connected.
TEST_F(LwsReleaseTest, ServerHasTwentySecondsForTheHandshake) {
  make_connecting_worker();
  const fake_lws::creation_info_t info = fake_lws::creation_infos().at(0);
  EXPECT_EQ(info.timeout_secs, 20u);
  EXPECT_GT(info.connect_timeout_secs, info.timeout_secs);
}

// The protocol allows at least 1 MiB per write to the socket, not the library's 4096 bytes.
TEST_F(LwsReleaseTest, LibraryDoesNotCutFramesIntoSmallWrites) {
  make_connecting_worker();
  EXPECT_GE(fake_lws::creation_infos().at(0).protocol.tx_packet_size, 1024u * 1024u);
}

// The attempt carries the library's flag against following a redirect, and none for TLS.
// A server's redirect once led the daemon to any other, and a host that begins with "+" crashed it.
TEST_F(LwsReleaseTest, RedirectsAreNotFollowed) {
  make_connecting_worker();
  EXPECT_NE(fake_lws::connect_infos().at(0).ssl_connection & LCCSCF_HTTP_NO_FOLLOW_REDIRECT, 0);
  EXPECT_EQ(fake_lws::connect_infos().at(0).ssl_connection & LCCSCF_USE_SSL, 0);
}

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

// With API 2.0 a push calls lws_callback_on_writable itself, on any thread.
TEST_F(LwsReleaseTest, PushFromAnotherThreadRequestsAWriteableCallback) {
  make_connected_worker();
  push_from_another_thread();
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
}

// With API 2.0 the later releases' reasons 45, 71 and 75 are three of those above 28.
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
