#include <cstdlib>
#include <functional>
#include <memory>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/layout.h"
#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class WebsockLifecycleTest : public WebsockFixture {
protected:
  /// The end of a connected worker announces itself once, in the designed order.
  void expect_ordered_end(const std::function<void()> &end) {
    open_websock_worker &ending = *worker;
    int announcements = 0;
    ws_to_bus.set_notify([&] {
      ++announcements;
      EXPECT_TRUE(ending.connected);
      // The "Stopping" line and the removed hook come first, the context is still there.
      EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->Stopping\n")));
      push_from_bus("after the hook");
      EXPECT_THAT(fake_lws::calls(), IsEmpty());
      EXPECT_NE(ending.context, nullptr);
    });
    fake_lws::on_destroy([&] {
      EXPECT_FALSE(ending.connected);
      EXPECT_THAT(fake_libc::closed_descriptors(), IsEmpty());
    });
    end();
    EXPECT_EQ(announcements, 1);
    EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->Stopping\n")));
    EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
    push_from_bus("nobody listens");
    EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_context_destroy context1"));
  }
};

// Construction.

// Mode 3, no context, empty receive buffer, flags and count clear, both delays the initial one.
TEST_F(WebsockLifecycleTest, ConstructorLeavesTheWorkerReadyAndUnconnected) {
  make_worker(7, 90);
  EXPECT_EQ(worker->bus_to_ws_queue, &bus_to_ws);
  EXPECT_EQ(worker->ws_to_bus_queue, &ws_to_bus);
  EXPECT_EQ(worker->mode, 3);
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_EQ(worker->host, "roam.example");
  EXPECT_EQ(worker->path, "/roam");
  EXPECT_EQ(worker->port, 8080);
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
  EXPECT_FALSE(worker->whole_messages);
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
  EXPECT_THAT(take_to_bus(), IsEmpty());
}

// Built with the designed nine arguments, it keeps what an empty last fragment ends.
TEST_F(WebsockLifecycleTest, WholeMessagesAreOffUnlessAskedFor) {
  worker = std::make_unique<open_websock_worker>(&bus_to_ws, &ws_to_bus, "roam.example", "/roam",
                                                 8080, &run_flag, 2, 60, false);
  EXPECT_FALSE(worker->whole_messages);
  make_worker(2, 60, false, true);
  EXPECT_TRUE(worker->whole_messages);
}

// From the base's timers on, the 25 designed members lie one behind the other, others after them.
TEST_F(WebsockLifecycleTest, MembersLieInTheOrderOfTheirDeclaration) {
  make_worker();
  const open_websock_worker &w = *worker;
  EXPECT_TRUE(lie_in_order(&w.timers, &w.skip_lws_binding, &w.log_name, &w.bus_to_ws_queue,
                           &w.ws_to_bus_queue, &w.mode, &w.context, &w.protocol_callback,
                           &w.log_hook, &w.host, &w.path, &w.port, &w.wake_pipe, &w.rx_buffer,
                           &w.protocols, &w.creation_info, &w.connect_info, &w.missed_pongs,
                           &w.alive, &w.connected, &w.closed, &w.last_ping, &w.ping_timeout_handler,
                           &w.current_delay, &w.initial_delay, &w.max_delay, &w.whole_messages));
}

// A failed context is an error line; the mask is the construction's, though 15 is set later.
TEST_F(WebsockLifecycleTest, ConstructorCopiesTheConfiguredLogLevel) {
  g_log_level = log_category_error;
  make_worker();
  g_log_level = 0x0F;
  fake_lws::fail_next_context();
  worker->_connect();
  worker->_connect();
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming->Creating libwebsocket context failed\n")));
}

// With the last argument true, name, protocol callback and log hook stay null.
TEST_F(WebsockLifecycleTest, WithoutBindingTheLibraryCallbacksAreLeftUnset) {
  make_worker(2, 60, true);
  EXPECT_TRUE(worker->skip_lws_binding);
  EXPECT_EQ(worker->log_name, nullptr);
  EXPECT_EQ(worker->protocol_callback, nullptr);
  EXPECT_EQ(worker->log_hook, nullptr);
}

// A second worker takes the library's callbacks away from the first, unless built without binding.
TEST_F(WebsockLifecycleTest, SecondWorkerTakesTheCallbacksAwayUnlessItIsWithoutBinding) {
  for (const bool without_binding : {false, true}) {
    make_worker();
    worker->_connect();
    open_websock_worker second(&bus_to_ws, &ws_to_bus, "other", "/", 1, &run_flag, 2, 60,
                               without_binding);
    fake_lws::deliver(LWS_CALLBACK_CLIENT_CONNECTION_ERROR);
    EXPECT_EQ(worker->closed, without_binding);
    EXPECT_NE(second.closed, without_binding);
  }
}

// One pipe() at construction, at descriptor 0 without standard input; destruction closes its ends.
TEST_F(WebsockLifecycleTest, PipeIsMadeByTheConstructorAndClosedByTheDestructor) {
  const int standard_input = dup(0);
  for (const bool with_standard_input : {true, false}) {
    if (!with_standard_input)
      close(0);
    fake_libc::reset();
    make_worker();
    const std::vector<int> ends = fake_libc::made_pipes();
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_EQ(ends[0] == 0, !with_standard_input);
    EXPECT_THAT(worker->wake_pipe, ElementsAre(ends[0], ends[1]));
    EXPECT_THAT(fake_libc::closed_descriptors(), IsEmpty());
    worker.reset();
    EXPECT_EQ(fake_libc::closed_descriptors(), ends);
    EXPECT_THAT(fake_libc::perror_texts(), IsEmpty());
  }
  dup2(standard_input, 0);
  close(standard_input);
}

// A failed pipe() is reported by perror("pipe"); connecting works, nothing is closed later.
TEST_F(WebsockLifecycleTest, FailedPipeIsReportedAndTheWorkerStaysUsable) {
  fake_libc::fail_pipe();
  make_worker();
  EXPECT_THAT(fake_libc::perror_texts(), ElementsAre("pipe"));
  EXPECT_TRUE(worker->init());
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_TRUE(worker->connected);
  worker.reset();
  EXPECT_THAT(fake_libc::closed_descriptors(), IsEmpty());
}

// Construction removes "http_proxy" and "socks_proxy" from the environment, and nothing else.
TEST_F(WebsockLifecycleTest, ProxyVariablesDoNotReachTheLibrary) {
  setenv("http_proxy", "127.0.0.1:9", 1);
  setenv("socks_proxy", "127.0.0.1:9", 1);
  setenv("vemk_test_variable", "stays", 1);
  for (int i = 0; i < 2; ++i) {
    make_worker();
    EXPECT_EQ(getenv("http_proxy"), nullptr);
    EXPECT_EQ(getenv("socks_proxy"), nullptr);
    EXPECT_STREQ(getenv("vemk_test_variable"), "stays");
  }
  unsetenv("vemk_test_variable");
}

// Connecting.

// Log levels 0x3FB, context, client connection; `alive` is set and two debug lines are written.
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

// Port, gid and uid are -1, protocol "websock-roaming" with this worker as user, all else zero.
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

// Address, host and origin are the bare host, no TLS, version -1, all other fields zero.
TEST_F(WebsockLifecycleTest, ConnectionIsPlainAndNamesTheConfiguredServer) {
  make_worker();
  worker->_connect();
  const fake_lws::connect_info_t info = fake_lws::connect_infos().at(0);
  EXPECT_EQ(info.context, worker->context);
  EXPECT_EQ(info.address, "roam.example");
  EXPECT_EQ(info.port, 8080);
  EXPECT_EQ(info.ssl_connection, fake_lws::plain_connection);
  EXPECT_EQ(info.path, "/roam");
  EXPECT_EQ(info.host, "roam.example");
  EXPECT_EQ(info.origin, "roam.example");
  EXPECT_EQ(info.protocol, "websock-roaming");
  EXPECT_EQ(info.ietf_version, -1);
  EXPECT_TRUE(info.rest_is_zero);
}

// Host, path and port are the constructor's, signed and unchecked, in the attempt and in its line.
TEST_F(WebsockLifecycleTest, AnyServerIsTriedAsItIsNamed) {
  open_websock_worker other(&bus_to_ws, &ws_to_bus, "", "/p?q=1", -7, &run_flag, 2, 60, false);
  other._connect();
  const fake_lws::connect_info_t info = fake_lws::connect_infos().at(0);
  EXPECT_EQ(info.address, "");
  EXPECT_EQ(info.path, "/p?q=1");
  EXPECT_EQ(info.port, -7);
  EXPECT_EQ(fake_log::lines().at(0),
            line("websock-roaming-> _connect: Try to establish connect with server :-7/p?q=1\n"));
}

// What an earlier attempt left in the four records is zeroed before the next.
TEST_F(WebsockLifecycleTest, EveryConnectFillsTheRecordsAnew) {
  make_worker();
  worker->_connect();
  worker->deinit();
  worker->protocols[0].id = 7;
  worker->protocols[1].name = "left over";
  worker->creation_info.ka_time = 7;
  worker->connect_info.userdata = this;
  worker->_connect();
  EXPECT_TRUE(fake_lws::creation_infos().at(1).rest_is_zero);
  EXPECT_EQ(fake_lws::creation_infos().at(1).protocol.id, 0u);
  EXPECT_TRUE(fake_lws::creation_infos().at(1).is_terminated);
  EXPECT_TRUE(fake_lws::connect_infos().at(1).rest_is_zero);
  EXPECT_EQ(fake_lws::connect_infos().at(1).context, worker->context);
  EXPECT_NE(fake_lws::connect_infos().at(0).context, worker->context);
}

// A library line of level 16 comes out as "portal->libwebsocket-debug> 16: ...", "%" unharmed.
TEST_F(WebsockLifecycleTest, LibraryLinesGoToTheDebugLog) {
  make_worker();
  worker->_connect();
  fake_log::clear();
  EXPECT_EQ(fake_lws::current_log_hook(), worker->log_hook);
  fake_lws::current_log_hook()(16, "100%s of it\n");
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("portal->libwebsocket-debug> 16: 100%s of it\n")));
}

// Without the debug bit a whole connection shows two lines, of its frames sent; with mask 0 none.
TEST_F(WebsockLifecycleTest, OnlyTheDebugCategoryShowsTheCourseOfAConnection) {
  for (const std::uint32_t mask :
       {log_category_error | log_category_warning | log_category_info, 0u}) {
    fake_log::clear();
    g_log_level = mask;
    make_worker();
    worker->init();
    fake_lws::current_log_hook()(16, "a line of the library\n");
    fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
    fake_lws::deliver_piece("received");
    let_pass(30);
    push_from_bus("sent");
    fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
    fake_lws::deliver(LWS_CALLBACK_CLIENT_RECEIVE_PONG);
    worker->missed_pongs = 3;
    fake_lws::deliver(fake_lws::closed_reason);
    worker->ping_timeout();
    worker->deinit();
    if (mask == 0)
      EXPECT_THAT(fake_log::lines(), IsEmpty());
    else
      EXPECT_THAT(fake_log::lines(), ElementsAre(ping_sent_line(), sent_line(0, 4, 4)));
  }
}

// No context: one error line, no connection attempt, false; `alive` is set all the same.
TEST_F(WebsockLifecycleTest, FailedContextIsLoggedAndNothingIsConnected) {
  make_worker();
  fake_lws::fail_next_context();
  EXPECT_FALSE(worker->_connect());
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_set_log_level 3fb", "lws_create_context"));
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming->Creating libwebsocket context failed\n")));
}

// No connection: the context is destroyed at once, no line after "Try to establish ...".
TEST_F(WebsockLifecycleTest, FailedConnectionDestroysTheContextWithoutALineOfItsOwn) {
  make_worker();
  fake_lws::fail_next_connection();
  EXPECT_FALSE(worker->_connect());
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre("lws_set_log_level 3fb", "lws_create_context",
                          "lws_client_connect_via_info context1", "lws_context_destroy context1"));
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_TRUE(worker->alive);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre(line("websock-roaming-> _connect: Try to establish connect with server "
                               "roam.example:8080/roam\n")));
}

// Context, `alive` and `connected` in each of the five states, from waiting to stopped.
TEST_F(WebsockLifecycleTest, StatesShowInContextAliveAndConnected) {
  using state_t = std::tuple<bool, bool, bool>;
  const auto state = [this] {
    return state_t(worker->context != nullptr, worker->alive, worker->connected);
  };
  make_worker();
  EXPECT_EQ(state(), state_t(false, false, false)) << "waiting";
  worker->_connect();
  EXPECT_EQ(state(), state_t(true, true, false)) << "connecting";
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(state(), state_t(true, true, true)) << "connected";
  fake_lws::deliver(fake_lws::closed_reason);
  EXPECT_EQ(state(), state_t(true, false, true)) << "dropping an established connection";
  worker->deinit();
  EXPECT_EQ(state(), state_t(false, false, false)) << "stopped";
  worker->_connect();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_CONNECTION_ERROR);
  EXPECT_EQ(state(), state_t(true, false, false)) << "dropping an attempt";
}

// The four operations of the base.

// "disconnected" is queued, then 20 sleeps of 50 ms pass, then the attempt starts.
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

// False for a failed context and for a failed connection; each doubles the delay, 2 to 8.
TEST_F(WebsockLifecycleTest, InitReturnsFalseWhenConnectingFails) {
  make_worker();
  fake_lws::fail_next_context();
  EXPECT_FALSE(worker->init());
  fake_lws::fail_next_connection();
  EXPECT_FALSE(worker->init());
  EXPECT_EQ(worker->current_delay, 8u);
}

// False for a false run flag whatever `alive` is, else what `alive` is.
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

// "Stopping", hook removed, "disconnected", `connected` cleared, context destroyed.
TEST_F(WebsockLifecycleTest, DeinitRemovesTheHookAnnouncesAndDestroysInOrder) {
  make_connected_worker();
  expect_ordered_end([this] { worker->deinit(); });
  EXPECT_FALSE(worker->connected);
  EXPECT_EQ(worker->context, nullptr);
  EXPECT_THAT(fake_libc::closed_descriptors(), IsEmpty());
}

// The six steps of deinit in order, then both pipe ends closed and the receive buffer gone.
TEST_F(WebsockLifecycleTest, DeletionThroughTheBaseStopsAsDeinitDoesAndThenClosesThePipe) {
  make_connected_worker();
  const std::weak_ptr<buffer_info_t> receive_buffer = worker->rx_buffer;
  expect_ordered_end([this] {
    std::unique_ptr<abstract_worker> base = std::move(worker);
    base.reset();
  });
  EXPECT_EQ(fake_libc::closed_descriptors(), fake_libc::made_pipes());
  EXPECT_TRUE(receive_buffer.expired());
}

// 60 s inside lws_context_destroy or 70 s after it fire no timer with id 0, but one with id 1.
TEST_F(WebsockLifecycleTest, DeinitCancelsTheWatchdogAndLeavesOtherTimers) {
  make_connected_worker();
  int others = 0;
  worker->timers.add_timer([&] { ++others; }, 1, 65);
  fake_lws::on_destroy([&] {
    for (int i = 0; i < 6; ++i) {
      fake_libc::advance_seconds(10);
      worker->timers.run_expired();
    }
  });
  worker->deinit();
  EXPECT_TRUE(worker->running);
  EXPECT_EQ(others, 0);
  worker->_connect();
  let_pass(70);
  EXPECT_TRUE(worker->running);
  EXPECT_EQ(others, 1);
}

// Without a context deinit logs "Stopping", queues "disconnected" and calls no library.
TEST_F(WebsockLifecycleTest, DeinitWithoutAContextDestroysNone) {
  make_worker();
  worker->deinit();
  EXPECT_THAT(fake_lws::calls(), IsEmpty());
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status));
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->Stopping\n")));
}

// Two missed pongs, the last ping's time and five received bytes survive deinit.
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

// Close, destroyed connection and protocol destroy inside the context's end only set `closed`.
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

// "disconnected" is queued a second time, the context is not destroyed again.
TEST_F(WebsockLifecycleTest, DestructorAnnouncesAgainAfterDeinit) {
  make_connected_worker();
  worker->deinit();
  worker.reset();
  EXPECT_THAT(take_to_bus(), ElementsAre(disconnected_status, disconnected_status));
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_context_destroy context1"));
}

// Close and protocol destroy inside the destructor's context end write their traces 76 and 31.
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

} // namespace
} // namespace vemk
