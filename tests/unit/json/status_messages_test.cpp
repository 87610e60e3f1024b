#include "json/status_messages.h"

#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/json/wrapped_json.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using wrapped_json::call;

class StatusMessagesTest : public testing::Test {
protected:
  StatusMessagesTest() { wrapped_json::reset(); }
  ~StatusMessagesTest() override { wrapped_json::reset(); }

  static bus_message_kind kind_of(const std::string &bytes) {
    buffer_info_t message;
    message.append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return classify_bus_message(message);
  }

  std::vector<std::string> take_all() {
    std::vector<std::string> texts;
    while (const auto message = queue.try_pop())
      texts.emplace_back(reinterpret_cast<const char *>(message->data), message->length);
    return texts;
  }

  static std::string nested_in(const std::string &text, int depth) {
    const auto count = static_cast<std::size_t>(depth);
    return std::string(count, '[') + text + std::string(count, ']');
  }

  message_queue_t queue;
};

// Building.

TEST_F(StatusMessagesTest, ConnectedMessageIsExactlyItsThreeMembers) {
  queue_status_message(queue, true);
  EXPECT_THAT(
      take_all(),
      ElementsAre(R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })"));
}

TEST_F(StatusMessagesTest, DisconnectedMessageIsExactlyItsThreeMembers) {
  queue_status_message(queue, false);
  EXPECT_THAT(
      take_all(),
      ElementsAre(R"({ "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" })"));
}

TEST_F(StatusMessagesTest, MessagesGoToTheBackOfTheQueueAndRunItsHook) {
  int wakeups = 0;
  queue.set_notify([&] { ++wakeups; });
  queue_status_message(queue, false);
  queue_status_message(queue, true);
  EXPECT_EQ(wakeups, 2);
  const auto texts = take_all();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_THAT(texts[0], testing::HasSubstr("\"disconnected\""));
  EXPECT_THAT(texts[1], testing::HasSubstr("\"connected\""));
}

TEST_F(StatusMessagesTest, StatusMessageIsOfTheDaemonsOwnServiceButNoRequest) {
  queue_status_message(queue, true);
  EXPECT_EQ(kind_of(take_all().at(0)), bus_message_kind::internal);
}

TEST_F(StatusMessagesTest, MemberThatCannotBeMadeIsMissing) {
  wrapped_json::fail(call::new_string, 1);
  queue_status_message(queue, true);
  EXPECT_THAT(take_all(), ElementsAre(R"({ "service": "internal-ipc", "cmd": "connected" })"));
}

TEST_F(StatusMessagesTest, NoMemoryForTheTextLosesTheMessageOnly) {
  wrapped_json::fail(call::copy_text);
  queue_status_message(queue, true);
  wrapped_json::fail(call::grow_buffer);
  queue_status_message(queue, true);
  EXPECT_THAT(take_all(), IsEmpty());
  queue_status_message(queue, true);
  EXPECT_EQ(take_all().size(), 1u);
}

TEST_F(StatusMessagesTest, FailureOfTheQueueReachesTheCaller) {
  queue.set_notify([] { throw std::bad_alloc(); });
  EXPECT_THROW(queue_status_message(queue, true), std::bad_alloc);
}

// Recognising.

TEST_F(StatusMessagesTest, StatusRequestIsRecognised) {
  for (const char *text : {
           R"({"service":"internal-ipc","cmd":"status"})",
           R"({"service":"INTERNAL-IPC","cmd":"STATUS"})",
           R"({"service":"Internal-Ipc","cmd":"sTaTuS"})",
           R"({"cmd":"status","more":[1,{}],"service":"internal-ipc","version":"9"})",
           "\n\t {\"service\" : \"internal-ipc\" ,\n\"cmd\" : \"status\" } \n",
           R"({"service":"internal\u002dipc","cmd":"st\u0061tus"})",
           R"({"service":"other","service":"internal-ipc","cmd":"x","cmd":"status"})",
       }) {
    SCOPED_TRACE(text);
    EXPECT_EQ(kind_of(text), bus_message_kind::status_request);
  }
}

TEST_F(StatusMessagesTest, OtherMessagesOfTheServiceAreInternal) {
  for (const char *text : {
           R"({"service":"internal-ipc"})",
           R"({"service":"internal-ipc","cmd":null})",
           R"({"service":"internal-ipc","cmd":""})",
           R"({"service":"internal-ipc","cmd":"status "})",
           R"({"service":"internal-ipc","cmd":"statu"})",
           R"({"service":"internal-ipc","cmd":"connected"})",
           R"({"service":"internal-ipc","cmd":5})",
           R"({"service":"internal-ipc","cmd":{"status":1}})",
           R"({"service":"internal-ipc","cmd":["status"]})",
           R"({"service":"internal-ipc","Cmd":"status"})",
           R"({"service":"internal-ipc","cmd":"status","cmd":"other"})",
       }) {
    SCOPED_TRACE(text);
    EXPECT_EQ(kind_of(text), bus_message_kind::internal);
  }
}

TEST_F(StatusMessagesTest, EverythingElseIsForeign) {
  for (const char *text : {
           "",
           "status",
           "null",
           "5",
           "\"internal-ipc\"",
           "{}",
           "[]",
           "{",
           R"({"service":"internal-ipc","cmd":"status")",
           R"({"cmd":"status"})",
           R"({"service":null,"cmd":"status"})",
           R"({"service":"","cmd":"status"})",
           R"({"service":"internal-ipc ","cmd":"status"})",
           R"({"service":"internal","cmd":"status"})",
           R"({"service":["internal-ipc"],"cmd":"status"})",
           R"({"Service":"internal-ipc","cmd":"status"})",
           R"([{"service":"internal-ipc","cmd":"status"}])",
           R"({"service":"internal-ipc","service":"other","cmd":"status"})",
       }) {
    SCOPED_TRACE(text);
    EXPECT_EQ(kind_of(text), bus_message_kind::foreign);
  }
}

TEST_F(StatusMessagesTest, BufferWithoutDataIsForeign) {
  EXPECT_EQ(classify_bus_message(buffer_info_t()), bus_message_kind::foreign);
}

TEST_F(StatusMessagesTest, NulByteEndsTheText) {
  const std::string request = R"({"service":"internal-ipc","cmd":"status"})";
  EXPECT_EQ(kind_of(request + std::string(1, '\0') + "binary"), bus_message_kind::status_request);
  EXPECT_EQ(kind_of(std::string(1, '\0') + request), bus_message_kind::foreign);
  EXPECT_EQ(kind_of(R"({"service":"internal-ipc",)" + std::string(1, '\0') + R"("cmd":"status"})"),
            bus_message_kind::foreign);
}

TEST_F(StatusMessagesTest, BytesThatAreNoUtf8AreHarmless) {
  EXPECT_EQ(kind_of("\xFF\xFE\x80"), bus_message_kind::foreign);
  EXPECT_EQ(kind_of("{\"service\":\"\xFF\xFE\",\"cmd\":\"status\"}"), bus_message_kind::foreign);
  EXPECT_EQ(kind_of("{\"service\":\"internal-ipc\",\"cmd\":\"\xC3\"}"), bus_message_kind::internal);
}

TEST_F(StatusMessagesTest, DeepNestingIsForeignAndNeverCrashes) {
  const std::string request = R"({"service":"internal-ipc","cmd":"status"})";
  EXPECT_EQ(kind_of(nested_in(request, 10)), bus_message_kind::foreign);
  EXPECT_EQ(kind_of(nested_in(request, 1000000)), bus_message_kind::foreign);
  EXPECT_EQ(
      kind_of(R"({"service":"internal-ipc","cmd":"status","deep":)" + nested_in("", 1000000) + "}"),
      bus_message_kind::foreign);
}

TEST_F(StatusMessagesTest, LongMessagesAreRecognisedToo) {
  const std::string padding(1024 * 1024, 'x');
  EXPECT_EQ(kind_of(R"({"padding":")" + padding + R"(","service":"internal-ipc","cmd":"status"})"),
            bus_message_kind::status_request);
  EXPECT_EQ(kind_of(R"({"service":")" + padding + R"(","cmd":"status"})"),
            bus_message_kind::foreign);
}

TEST_F(StatusMessagesTest, ParsedTextIsReleasedOnEveryPath) {
  for (const char *text :
       {R"({"service":"internal-ipc","cmd":"status"})", R"({"service":"internal-ipc"})",
        R"({"service":"internal-ipc","cmd":"x"})", R"({"service":"x"})", "{}"}) {
    SCOPED_TRACE(text);
    wrapped_json::reset();
    kind_of(text);
    EXPECT_THAT(wrapped_json::record(), ElementsAre("put"));
  }
}

} // namespace
} // namespace vemk
