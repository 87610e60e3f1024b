#include <sys/socket.h>
#include <unistd.h>

#include "support/joined.h"
#include "unit/websock/event_websock_fixture.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using calls_t = std::vector<std::string>;

class EventWebsockSendingTest : public EventWebsockFixture {};

// Sending.

// Of 70 messages a callback sends 64 and asks for another one, which sends 6 and does not.
TEST_F(EventWebsockSendingTest, WriteableCallbackSendsUpTo64Messages) {
  make_connected();
  calls_t texts;
  for (int i = 0; i < 70; ++i)
    push_from_bus(texts.emplace_back(std::to_string(i)));
  EXPECT_EQ(calls_when_writeable().back(), writeable_call);
  EXPECT_EQ(sent(), calls_t(texts.begin(), texts.begin() + 64));
  EXPECT_THAT(calls_when_writeable(), Not(Contains(writeable_call)));
  EXPECT_EQ(sent(), calls_t(texts.begin() + 64, texts.end()));
}

// Without a message there is no frame and no request.
TEST_F(EventWebsockSendingTest, WriteableCallbackWithoutAMessageDoesNothing) {
  make_connected();
  EXPECT_THAT(calls_when_writeable(), IsEmpty());
}

// When the library holds a part back, the next message stays queued, and a callback is requested.
TEST_F(EventWebsockSendingTest, HeldBackPartStopsTheSending) {
  make_connected();
  for (const char *text : {"one", request, "two"})
    push_from_bus(text);
  ws_to_bus.set_notify([] { fake_lws::hold_back_rest(true); });
  EXPECT_EQ(calls_when_writeable(), calls_t({"lws_write wsi1 3 0", writeable_call}));
  EXPECT_EQ(calls_when_writeable(), calls_t({writeable_call}));
  fake_lws::hold_back_rest(false);
  EXPECT_EQ(calls_when_writeable(), calls_t({"lws_write wsi1 3 0"}));
  EXPECT_THAT(sent(), ElementsAre("one", "two"));
}

#if LWS_LIBRARY_VERSION_NUMBER < 2003000

// Before 2.3 the part leaves in the same step, by service calls of 0 ms.
TEST_F(EventWebsockSendingTest, HeldBackPartLeavesInTheSameStep) {
  make_connected();
  int sockets[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  fake_lws::set_socket(sockets[0]);
  fake_lws::hold_back_rest(true);
  fake_lws::script_service([] {});
  fake_lws::script_service([] { fake_lws::hold_back_rest(false); });
  event->run_once();
  EXPECT_THAT(fake_lws::calls(),
              ElementsAre("lws_service context1 30000", "lws_service context1 0"));
  for (const int end : sockets)
    close(end);
}

#endif

// A result of -1 loses its message alone: the next one stays queued for the next callback.
TEST_F(EventWebsockSendingTest, FailedWriteStopsTheSending) {
  make_connected();
  for (const char *text : {"one", "two", "three"})
    push_from_bus(text);
  fake_lws::script_write_results({3, -1});
  EXPECT_EQ(calls_when_writeable(),
            calls_t({"lws_write wsi1 3 0", "lws_write wsi1 3 0", writeable_call}));
  EXPECT_EQ(bus_to_ws.items.size(), 1u);
  EXPECT_THAT(fake_log::lines(), Contains(failed_line(0)));
  EXPECT_EQ(calls_when_writeable(), calls_t({"lws_write wsi1 5 0"}));
}

// Results 0 and 2 of 3 bytes do not stop it.
TEST_F(EventWebsockSendingTest, ShortWriteDoesNotStopTheSending) {
  make_connected();
  for (const char *text : {"one", "two", "three"})
    push_from_bus(text);
  fake_lws::script_write_results({0, 2});
  calls_when_writeable();
  EXPECT_THAT(sent(), ElementsAre("one", "two", "three"));
}

// The socket collects packets from the second frame on, and no more behind the last one.
TEST_F(EventWebsockSendingTest, SeveralFramesShareTheirPackets) {
  make_connected();
  const int tcp = socket(AF_INET, SOCK_STREAM, 0);
  fake_lws::set_socket(tcp);
  for (const char *text : {"one", "two", "three"})
    push_from_bus(text);
  calls_when_writeable();
  std::vector<bool> corked;
  for (const fake_lws::frame_t &frame : fake_lws::frames())
    corked.push_back(frame.is_corked);
  EXPECT_THAT(corked, ElementsAre(false, true, true));
  EXPECT_FALSE(fake_lws::is_corked());
  close(tcp);
}

// A due ping goes first, then the messages.
TEST_F(EventWebsockSendingTest, PingComesBeforeTheMessages) {
  make_connected();
  calls_of_step(30);
  push_from_bus("one");
  EXPECT_EQ(calls_when_writeable(), calls_t({"lws_write wsi1 " + std::to_string(ping_length) + " 5",
                                             writeable_call, "lws_write wsi1 3 0"}));
}

// Own messages are not sent: a request is answered, another one and a null pointer are dropped.
TEST_F(EventWebsockSendingTest, OwnMessagesAreKept) {
  make_connected();
  push_from_bus(request);
  push_from_bus(R"({"service":"internal-ipc"})");
  bus_to_ws.push(nullptr);
  push_from_bus("one");
  EXPECT_EQ(calls_when_writeable(), calls_t({"lws_write wsi1 3 0"}));
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status));
}

// The stopped bus worker is woken, by the service-to-bus queue's notify, when 512 KiB are left.
TEST_F(EventWebsockSendingTest, SendingMakesRoomForTheBus) {
  make_connected();
  fake_lws::keep_no_payloads();
  for (int i = 0; i < 4; ++i)
    push_from_bus(std::string(limit / 4, 'x'));
  EXPECT_TRUE(bus_to_ws_bound.stops_producer());
  std::vector<std::size_t> left;
  ws_to_bus.set_notify([&] { left.push_back(bus_to_ws.items.size()); });
  calls_when_writeable();
  EXPECT_THAT(left, ElementsAre(2));
  EXPECT_FALSE(bus_to_ws_bound.stops_producer());
}

// Requests for a writeable callback.

// A step requests one before its service while a message waits.
TEST_F(EventWebsockSendingTest, StepRequestsACallbackForAQueuedMessage) {
  make_connected();
  push_from_bus("one");
  EXPECT_EQ(calls_of_step(), joined({{writeable_call}, service_calls("context1", 30000)}));
}

// During an attempt nothing is requested; the establishment requests one.
TEST_F(EventWebsockSendingTest, MessagesOfAnAttemptAreRequestedWithTheEstablishment) {
  make_connecting();
  EXPECT_THAT(calls_of_push("one"), IsEmpty());
  EXPECT_EQ(calls_of_step(), service_calls("context1", 500));
  forget_records();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  EXPECT_EQ(fake_lws::calls(), calls_t({writeable_call}));
}

// The first message wakes the service thread, those behind it do not until it was taken.
TEST_F(EventWebsockSendingTest, OnlyTheFirstMessageWakesTheServiceThread) {
  make_connected();
  EXPECT_EQ(calls_of_push("one"), calls_t({wake_call("context1", "wsi1")}));
  EXPECT_THAT(calls_of_push("two"), IsEmpty());
  calls_when_writeable();
  EXPECT_EQ(calls_of_push("three"), calls_t({wake_call("context1", "wsi1")}));
}

} // namespace
} // namespace vemk
