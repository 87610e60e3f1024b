#include <cstdlib>
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

class WebsockLifecycleTest : public WebsockFixture {};

// Construction.

TEST_F(WebsockLifecycleTest, ConstructorLeavesTheWorkerReadyAndUnconnected) {
  make_worker(7, 90);
  EXPECT_EQ(worker->bus_to_ws_queue, &bus_to_ws);
  EXPECT_EQ(worker->ws_to_bus_queue, &ws_to_bus);
  EXPECT_EQ(worker->mode, 3);
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_FALSE(worker->skip_lws_binding);
  EXPECT_STREQ(worker->log_name, "websock-roaming");
  EXPECT_NE(worker->protocol_callback, nullptr);
  EXPECT_NE(worker->log_hook, nullptr);
  ASSERT_NE(worker->rx_buffer, nullptr);
  EXPECT_EQ(worker->rx_buffer->data, nullptr);
  EXPECT_EQ(worker->rx_buffer->length, 0u);
  EXPECT_EQ(worker->missed_pongs, 0);
  EXPECT_FALSE(worker->alive);
  EXPECT_FALSE(worker->connected);
  EXPECT_FALSE(worker->closed);
  EXPECT_EQ(worker->current_delay, 7u);
  EXPECT_EQ(worker->initial_delay, 7u);
  EXPECT_EQ(worker->max_delay, 90u);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
  EXPECT_THAT(take_to_bus(), IsEmpty());
}

TEST_F(WebsockLifecycleTest, ConstructorCopiesTheConfiguredLogLevel) {
  g_log_level = log_category_error;
  make_worker();
  g_log_level = 0x0F;
  worker->_connect();
  EXPECT_THAT(fake_log::messages("websock-worker"), IsEmpty());
}

TEST_F(WebsockLifecycleTest, WithoutBindingTheLibraryCallbacksAreLeftUnset) {
  make_worker(2, 60, true);
  EXPECT_TRUE(worker->skip_lws_binding);
  EXPECT_EQ(worker->log_name, nullptr);
  EXPECT_EQ(worker->protocol_callback, nullptr);
  EXPECT_EQ(worker->log_hook, nullptr);
}

TEST_F(WebsockLifecycleTest, WithoutBindingAnEarlierWorkerKeepsTheCallbacks) {
  make_worker();
  worker->_connect();
  open_websock_worker second(&bus_to_ws, &ws_to_bus, "other", "/", 1, &run_flag, 2, 60, true);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_CONNECTION_ERROR);
  EXPECT_TRUE(worker->closed);
  EXPECT_FALSE(second.closed);
}

TEST_F(WebsockLifecycleTest, SecondWorkerTakesTheCallbacksAway) {
  make_worker();
  worker->_connect();
  open_websock_worker second(&bus_to_ws, &ws_to_bus, "other", "/", 1, &run_flag, 2, 60, false);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_CONNECTION_ERROR);
  EXPECT_FALSE(worker->closed);
  EXPECT_TRUE(second.closed);
}

TEST_F(WebsockLifecycleTest, PipeIsMadeByTheConstructorAndClosedByTheDestructor) {
  make_worker();
  const std::vector<int> ends = wrapped_libc::made_pipes();
  ASSERT_EQ(ends.size(), 2u);
  EXPECT_THAT(worker->wake_pipe, ElementsAre(ends[0], ends[1]));
  EXPECT_THAT(wrapped_libc::closed_descriptors(), IsEmpty());
  worker.reset();
  EXPECT_THAT(wrapped_libc::closed_descriptors(), ElementsAre(ends[0], ends[1]));
  EXPECT_THAT(wrapped_libc::perror_texts(), IsEmpty());
}

TEST_F(WebsockLifecycleTest, FailedPipeIsReportedAndTheWorkerStaysUsable) {
  wrapped_libc::fail_pipe();
  make_worker();
  EXPECT_THAT(wrapped_libc::perror_texts(), ElementsAre("pipe"));
  EXPECT_TRUE(worker->init());
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_TRUE(worker->connected);
  worker.reset();
  EXPECT_THAT(wrapped_libc::closed_descriptors(), IsEmpty());
}

TEST_F(WebsockLifecycleTest, ProxyVariablesDoNotReachTheLibrary) {
  setenv("http_proxy", "127.0.0.1:9", 1);
  setenv("socks_proxy", "127.0.0.1:9", 1);
  make_worker();
  worker->_connect();
  EXPECT_EQ(getenv("http_proxy"), nullptr);
  EXPECT_EQ(getenv("socks_proxy"), nullptr);
}

// Connecting.

TEST_F(WebsockLifecycleTest, ConnectMakesContextAndConnectionInOrder) {
  make_worker();
  EXPECT_TRUE(worker->_connect());
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_set_log_level 3fb", "lws_create_context",
                                             "lws_client_connect_via_info context1"));
  EXPECT_NE(worker->context, nullptr);
  EXPECT_TRUE(worker->alive);
  EXPECT_FALSE(worker->connected);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming-> _connect: Try to establish connect with server "
                               "roam.example:8080/roam\n"),
                          line("websock-roaming->Connected\n")));
}

TEST_F(WebsockLifecycleTest, ContextIsForOneClientProtocolAndNothingElse) {
  make_worker();
  worker->_connect();
  const fake_lws::creation_info_t info = fake_lws::creation_infos().at(0);
  EXPECT_EQ(info.port, -1);
  EXPECT_EQ(info.gid, -1);
  EXPECT_EQ(info.uid, -1);
  EXPECT_TRUE(info.rest_is_zero);
  EXPECT_EQ(info.protocol_name, "websock-roaming");
  EXPECT_EQ(info.protocol.callback, worker->protocol_callback);
  EXPECT_EQ(info.protocol.per_session_data_size, 0u);
  EXPECT_EQ(info.protocol.rx_buffer_size, 0u);
  EXPECT_EQ(info.protocol.id, 0u);
  EXPECT_EQ(info.protocol.user, static_cast<websock_worker *>(worker.get()));
  EXPECT_TRUE(info.is_terminated);
}

TEST_F(WebsockLifecycleTest, ConnectionIsPlainAndNamesTheConfiguredServer) {
  make_worker();
  worker->_connect();
  const fake_lws::connect_info_t info = fake_lws::connect_infos().at(0);
  EXPECT_EQ(info.context, worker->context);
  EXPECT_EQ(info.address, "roam.example");
  EXPECT_EQ(info.port, 8080);
  EXPECT_EQ(info.ssl_connection, 0);
  EXPECT_EQ(info.path, "/roam");
  EXPECT_EQ(info.host, "roam.example");
  EXPECT_EQ(info.origin, "roam.example");
  EXPECT_EQ(info.protocol, "websock-roaming");
  EXPECT_EQ(info.ietf_version, -1);
  EXPECT_TRUE(info.rest_is_zero);
}

TEST_F(WebsockLifecycleTest, EveryConnectFillsTheRecordsAnew) {
  make_worker();
  worker->_connect();
  worker->deinit();
  worker->_connect();
  EXPECT_TRUE(fake_lws::creation_infos().at(1).rest_is_zero);
  EXPECT_TRUE(fake_lws::creation_infos().at(1).is_terminated);
  EXPECT_TRUE(fake_lws::connect_infos().at(1).rest_is_zero);
  EXPECT_EQ(fake_lws::connect_infos().at(1).context, worker->context);
  EXPECT_NE(fake_lws::connect_infos().at(0).context, worker->context);
}

TEST_F(WebsockLifecycleTest, LibraryLinesGoToTheDebugLog) {
  make_worker();
  worker->_connect();
  fake_log::clear();
  EXPECT_EQ(fake_lws::current_log_hook(), worker->log_hook);
  fake_lws::current_log_hook()(16, "100%s of it\n");
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("portal->libwebsocket-debug> 16: 100%s of it\n")));
}

TEST_F(WebsockLifecycleTest, FailedContextIsLoggedAndNothingIsConnected) {
  make_worker();
  fake_lws::fail_next_context();
  EXPECT_FALSE(worker->_connect());
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_set_log_level 3fb", "lws_create_context"));
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming->Creating libwebsocket context failed\n")));
}

TEST_F(WebsockLifecycleTest, FailedContextIsAnErrorLine) {
  g_log_level = log_category_error;
  make_worker();
  fake_lws::fail_next_context();
  worker->_connect();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming->Creating libwebsocket context failed\n")));
}

TEST_F(WebsockLifecycleTest, FailedConnectionDestroysTheContextWithoutALineOfItsOwn) {
  make_worker();
  fake_lws::fail_next_connection();
  EXPECT_FALSE(worker->_connect());
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre("lws_set_log_level 3fb", "lws_create_context",
                          "lws_client_connect_via_info context1", "lws_context_destroy context1"));
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming-> _connect: Try to establish connect with server "
                               "roam.example:8080/roam\n")));
}

// The four operations of the base.

TEST_F(WebsockLifecycleTest, InitAnnouncesWaitsAndConnects) {
  make_worker();
  fake_libc::on_sleep([&](std::int64_t) {
    EXPECT_EQ(ws_to_bus.items.size(), 1u);
    EXPECT_THAT(fake_lws::calls(), IsEmpty());
  });
  EXPECT_TRUE(worker->init());
  EXPECT_THAT(fake_libc::sleeps_us(), testing::SizeIs(20));
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
  EXPECT_THAT(fake_lws::calls(), Contains("lws_client_connect_via_info context1"));
}

TEST_F(WebsockLifecycleTest, InitReturnsFalseWhenConnectingFails) {
  make_worker();
  fake_lws::fail_next_context();
  EXPECT_FALSE(worker->init());
  fake_lws::fail_next_connection();
  EXPECT_FALSE(worker->init());
  EXPECT_EQ(worker->current_delay, 8u);
}

TEST_F(WebsockLifecycleTest, StepServesTheLibraryAndAsksForAPause) {
  make_connecting_worker();
  EXPECT_TRUE(worker->run_once());
  EXPECT_EQ(fake_lws::calls(), service_calls("context1"));
}

TEST_F(WebsockLifecycleTest, StepFiresDueTimersAfterTheService) {
  make_connecting_worker();
  bool served = false;
  bool fired_after_service = false;
  fake_lws::script_service([&] { served = true; });
  worker->timers.add_timer([&] { fired_after_service = served; }, 9, 0);
  worker->run_once();
  EXPECT_TRUE(fired_after_service);
}

TEST_F(WebsockLifecycleTest, WorkerKeepsRunningWhileFlagAndConnectionHold) {
  make_worker();
  EXPECT_FALSE(worker->keep_running(&run_flag));
  worker->_connect();
  EXPECT_TRUE(worker->keep_running(&run_flag));
  run_flag = false;
  EXPECT_FALSE(worker->keep_running(&run_flag));
  run_flag = true;
  worker->alive = false;
  EXPECT_FALSE(worker->keep_running(&run_flag));
}

TEST_F(WebsockLifecycleTest, DeinitRemovesTheHookAnnouncesAndDestroysInOrder) {
  make_connected_worker();
  bool was_connected_at_push = false;
  ws_to_bus.set_notify([&] {
    was_connected_at_push = worker->connected;
    // The "Stopping" line and the removed hook come first, the context is still there.
    EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->Stopping\n")));
    push_from_bus("after the hook");
    EXPECT_THAT(fake_lws::calls(), IsEmpty());
    EXPECT_NE(worker->context, nullptr);
  });
  fake_lws::on_destroy([&] { EXPECT_FALSE(worker->connected); });
  worker->deinit();
  EXPECT_TRUE(was_connected_at_push);
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
  EXPECT_FALSE(worker->connected);
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_context_destroy context1"));
  EXPECT_EQ(worker->context, nullptr);
}

TEST_F(WebsockLifecycleTest, DeinitCancelsTheWatchdogAndLeavesOtherTimers) {
  make_connected_worker();
  int others = 0;
  worker->timers.add_timer([&] { ++others; }, 1, 5);
  worker->running = true;
  worker->deinit();
  worker->_connect();
  let_pass(70);
  EXPECT_TRUE(worker->running);
  EXPECT_EQ(others, 1);
}

TEST_F(WebsockLifecycleTest, DeinitWithoutAContextDestroysNone) {
  make_worker();
  worker->deinit();
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->Stopping\n")));
}

TEST_F(WebsockLifecycleTest, DeinitLeavesPingStateAndReceiveBufferAlone) {
  make_connected_worker();
  worker->missed_pongs = 2;
  const auto last_ping = worker->last_ping.tv_sec;
  fake_lws::set_piece(3, false);
  fake_lws::deliver_piece("begun");
  fake_libc::advance_seconds(5);
  worker->deinit();
  EXPECT_EQ(worker->missed_pongs, 2);
  EXPECT_EQ(worker->last_ping.tv_sec, last_ping);
  EXPECT_EQ(worker->rx_buffer->length, 5u);
}

TEST_F(WebsockLifecycleTest, CallbacksDuringTheContextsEndAreHandled) {
  make_connected_worker();
  fake_lws::on_destroy([&] {
    fake_lws::deliver(fake_lws::closed_reason);
    fake_lws::deliver(LWS_CALLBACK_WSI_DESTROY);
    fake_lws::deliver(LWS_CALLBACK_PROTOCOL_DESTROY, nullptr);
  });
  worker->deinit();
  EXPECT_TRUE(worker->closed);
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_TRUE(worker->_connect());
  EXPECT_TRUE(worker->keep_running(&run_flag));
}

TEST_F(WebsockLifecycleTest, DestructorStopsAsDeinitDoes) {
  make_connected_worker();
  worker.reset();
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->Stopping\n")));
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_context_destroy context1"));
  fake_lws::clear_calls();
  push_from_bus("nobody listens");
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
}

TEST_F(WebsockLifecycleTest, DestructorAnnouncesAgainAfterDeinit) {
  make_connected_worker();
  worker->deinit();
  worker.reset();
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status, disconnected_status));
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_context_destroy context1"));
}

TEST_F(WebsockLifecycleTest, CallbacksDuringTheDestructorReachTheWorker) {
  make_connected_worker();
  fake_lws::on_destroy([] {
    fake_lws::deliver(fake_lws::closed_reason);
    fake_lws::deliver(LWS_CALLBACK_PROTOCOL_DESTROY, nullptr);
  });
  worker.reset();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming->Stopping\n"), trace_line("process_closed", 76),
                          trace_line("process_protocol_destroy", 31)));
}

TEST_F(WebsockLifecycleTest, SilentModuleWritesNothing) {
  g_log_level = 0;
  make_worker();
  worker->init();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  worker->deinit();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

} // namespace
} // namespace vemk
