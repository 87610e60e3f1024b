#include <string>
#include <vector>

#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class WebsockStatusTest : public WebsockFixture {
protected:
  void expect_answer(const std::string &status) {
    take_to_bus();
    EXPECT_TRUE(worker->handle_status_request(*buffer_of(status_request)));
    EXPECT_THAT(take_to_bus(), ElementsAre(status));
  }

  void send_from_bus(const std::string &text) {
    push_from_bus(text);
    fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  }
};

// Three members each: "version" "2.0", "service" "internal-ipc", "cmd".
TEST_F(WebsockStatusTest, StatusMessagesSayWhatTheConnectionIs) {
  make_worker();
  worker->queue_connected_status();
  worker->queue_disconnected_status();
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status, disconnected_status));
}

// "disconnected" before the establishment, "connected" after it and a close, until deinit.
TEST_F(WebsockStatusTest, RequestIsAnsweredWithThePresentState) {
  make_connecting_worker();
  expect_answer(disconnected_status);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  expect_answer(connected_status);
  fake_lws::deliver(fake_lws::closed_reason);
  expect_answer(connected_status);
  worker->deinit();
  expect_answer(disconnected_status);
}

// "INTERNAL-ipc" with "StAtUs" is answered and not sent.
TEST_F(WebsockStatusTest, LetterCaseDoesNotMatter) {
  make_connected_worker();
  send_from_bus(R"({"service":"INTERNAL-ipc","cmd":"StAtUs"})");
  EXPECT_THAT(take_to_bus(), ElementsAre(connected_status));
  EXPECT_THAT(fake_lws::frames(), IsEmpty());
}

// Cmd unknown, missing, null, a number or "connected": the message goes nowhere.
TEST_F(WebsockStatusTest, OtherMessagesOfTheServiceAreNeitherAnsweredNorSent) {
  make_connected_worker();
  for (const char *text :
       {R"({"service":"internal-ipc","cmd":"reboot"})", R"({"service":"internal-ipc"})",
        R"({"service":"internal-ipc","cmd":null})", R"({"service":"internal-ipc","cmd":7})",
        connected_status})
    send_from_bus(text);
  EXPECT_THAT(fake_lws::frames(), IsEmpty());
  EXPECT_THAT(take_to_bus(), IsEmpty());
}

// No JSON, other or null service, no service, array, cut short, 0xFF: sent unchanged as text.
TEST_F(WebsockStatusTest, EverythingElseIsSent) {
  make_connected_worker();
  const std::vector<std::string> texts = {"not JSON",
                                          R"({"service":"other","cmd":"status"})",
                                          R"({"cmd":"status"})",
                                          R"({"service":null,"cmd":"status"})",
                                          "[]",
                                          "{",
                                          "\xFF"};
  for (const std::string &text : texts)
    send_from_bus(text);
  const auto frames = fake_lws::frames();
  ASSERT_EQ(frames.size(), texts.size());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(frames[i].payload, texts[i]);
    EXPECT_EQ(frames[i].type, 0);
  }
  EXPECT_THAT(take_to_bus(), IsEmpty());
}

// A restart queues "disconnected" from deinit and again from init; no message has "ap-mac".
TEST_F(WebsockStatusTest, RestartAnnouncesDisconnectedTwice) {
  make_worker();
  worker->init();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  fake_lws::deliver(fake_lws::closed_reason);
  worker->deinit();
  worker->init();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  const auto texts = take_to_bus();
  EXPECT_THAT(texts, ElementsAre(disconnected_status, connected_status, disconnected_status,
                                 disconnected_status, connected_status));
  EXPECT_THAT(texts, Each(Not(HasSubstr("ap-mac"))));
}

} // namespace
} // namespace vemk
