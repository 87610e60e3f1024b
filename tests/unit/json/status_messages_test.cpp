#include "json/status_messages.h"

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "fakes/fake_mutex.h"
#include "log/log_module.h"
#include "unit/json/wrapped_json.h"

namespace vemk {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using wrapped_json::call;

class StatusMessagesTest : public testing::Test {
protected:
  StatusMessagesTest() {
    wrapped_json::reset();
    fake_log::clear();
    g_log_level = 0x01;
  }

  ~StatusMessagesTest() override {
    wrapped_json::reset();
    g_log_level = 0;
  }

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

// { "version": "2.0", "service": "internal-ipc", "cmd": "connected" }, no byte more.
TEST_F(StatusMessagesTest, ConnectedMessageIsExactlyItsThreeMembers) {
  queue_status_message(queue, true);
  EXPECT_THAT(
      take_all(),
      ElementsAre(R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })"));
}

// { "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" }, no byte more.
TEST_F(StatusMessagesTest, DisconnectedMessageIsExactlyItsThreeMembers) {
  queue_status_message(queue, false);
  EXPECT_THAT(
      take_all(),
      ElementsAre(R"({ "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" })"));
}

// "disconnected" and "connected" leave in this order, each with one call of notify.
TEST_F(StatusMessagesTest, MessagesGoToTheBackOfTheQueueAndRunItsHook) {
  int wakeups = 0;
  queue.set_notify([&] { ++wakeups; });
  queue_status_message(queue, false);
  queue_status_message(queue, true);
  EXPECT_EQ(wakeups, 2);
  EXPECT_THAT(
      take_all(),
      ElementsAre(R"({ "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" })",
                  R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })"));
}

// Members "version", "service" and "cmd" are added in this order; tree and text are released.
TEST_F(StatusMessagesTest, MessageIsBuiltInOrderAndItsTreeReleased) {
  queue_status_message(queue, true);
  EXPECT_THAT(wrapped_json::record(),
              ElementsAre("object_add version", "object_add service", "object_add cmd", "put"));
  EXPECT_EQ(wrapped_json::texts_made(), 1u);
  EXPECT_EQ(wrapped_json::texts_alive(), 0u);
}

// The push runs the queue's notify under the queue's own mutex.
TEST_F(StatusMessagesTest, HookRunsUnderTheQueuesLock) {
  bool held = false;
  queue.set_notify([&] { held = fake_mutex::is_held(queue.lock); });
  queue_status_message(queue, true);
  EXPECT_TRUE(held);
}

// One that comes back from the bus would be kept and not answered.
TEST_F(StatusMessagesTest, StatusMessageIsOfTheDaemonsOwnServiceButNoRequest) {
  queue_status_message(queue, true);
  EXPECT_EQ(kind_of(take_all().at(0)), bus_message_kind::internal);
}

// Without memory for "2.0" the message has service and cmd only.
TEST_F(StatusMessagesTest, MemberThatCannotBeMadeIsMissing) {
  wrapped_json::fail(call::new_string, 1);
  queue_status_message(queue, true);
  EXPECT_THAT(take_all(), ElementsAre(R"({ "service": "internal-ipc", "cmd": "connected" })"));
}

// A failed strdup, silently, or realloc, with its log line, queues nothing; the next is whole.
TEST_F(StatusMessagesTest, NoMemoryForTheTextLosesTheMessageOnly) {
  wrapped_json::fail(call::copy_text);
  queue_status_message(queue, true);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  wrapped_json::fail(call::grow_buffer);
  queue_status_message(queue, true);
  EXPECT_THAT(fake_log::lines(), ElementsAre("|" + std::to_string(getpid()) +
                                             "|buffer-info> append:95 Can't alloc memory\n"));
  EXPECT_THAT(take_all(), IsEmpty());
  queue_status_message(queue, true);
  EXPECT_EQ(take_all().size(), 1u);
}

// A std::bad_alloc out of the push leaves queue_status_message.
TEST_F(StatusMessagesTest, FailureOfTheQueueReachesTheCaller) {
  queue.set_notify([] { throw std::bad_alloc(); });
  EXPECT_THROW(queue_status_message(queue, true), std::bad_alloc);
}

// EDEADLK of the queue's mutex leaves as std::system_error, and tree and text are released.
TEST_F(StatusMessagesTest, FailureOfTheQueuesLockReachesTheCaller) {
  fake_mutex::refuse(queue.lock, EDEADLK);
  EXPECT_THROW(queue_status_message(queue, true), std::system_error);
  fake_mutex::watch(queue.lock);
  EXPECT_THAT(take_all(), IsEmpty());
  EXPECT_THAT(wrapped_json::record(), Contains("put").Times(1));
  EXPECT_EQ(wrapped_json::texts_alive(), 0u);
}

// Recognising.

// service "internal-ipc" and cmd "status", in any letter case, order and company.
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

// A missing or null cmd, any other cmd, and a key "Cmd": kept without an answer.
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

// No JSON, no object, no or another service, a key "Service": for the roaming service.
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

// A buffer whose data is null is forwarded.
TEST_F(StatusMessagesTest, BufferWithoutDataIsForeign) {
  EXPECT_EQ(classify_bus_message(buffer_info_t()), bus_message_kind::foreign);
}

// A request with a NUL behind it is recognised; with one in front or inside it is not.
TEST_F(StatusMessagesTest, NulByteEndsTheText) {
  const std::string request = R"({"service":"internal-ipc","cmd":"status"})";
  EXPECT_EQ(kind_of(request + std::string(1, '\0') + "binary"), bus_message_kind::status_request);
  EXPECT_EQ(kind_of(std::string(1, '\0') + request), bus_message_kind::foreign);
  EXPECT_EQ(kind_of(R"({"service":"internal-ipc",)" + std::string(1, '\0') + R"("cmd":"status"})"),
            bus_message_kind::foreign);
}

// They are no JSON, or another service, or another cmd.
TEST_F(StatusMessagesTest, BytesThatAreNoUtf8AreHarmless) {
  EXPECT_EQ(kind_of("\xFF\xFE\x80"), bus_message_kind::foreign);
  EXPECT_EQ(kind_of("{\"service\":\"\xFF\xFE\",\"cmd\":\"status\"}"), bus_message_kind::foreign);
  EXPECT_EQ(kind_of("{\"service\":\"internal-ipc\",\"cmd\":\"\xC3\"}"), bus_message_kind::internal);
}

// A request inside 10 or 1,000,000 arrays, or with 1,000,000 beside it, is forwarded.
TEST_F(StatusMessagesTest, DeepNestingIsForeignAndNeverCrashes) {
  const std::string request = R"({"service":"internal-ipc","cmd":"status"})";
  EXPECT_EQ(kind_of(nested_in(request, 10)), bus_message_kind::foreign);
  EXPECT_EQ(kind_of(nested_in(request, 1000000)), bus_message_kind::foreign);
  EXPECT_EQ(
      kind_of(R"({"service":"internal-ipc","cmd":"status","deep":)" + nested_in("", 1000000) + "}"),
      bus_message_kind::foreign);
}

// A request with a member of 1 MiB in front is answered; a service of 1 MiB is another one.
TEST_F(StatusMessagesTest, LongMessagesAreRecognisedToo) {
  const std::string padding(1024 * 1024, 'x');
  EXPECT_EQ(kind_of(R"({"padding":")" + padding + R"(","service":"internal-ipc","cmd":"status"})"),
            bus_message_kind::status_request);
  EXPECT_EQ(kind_of(R"({"service":")" + padding + R"(","cmd":"status"})"),
            bus_message_kind::foreign);
}

// No text without the service's name in any letter case and without a backslash is parsed.
// Every message was: 1 MiB of "[{},{},...]", which is nobody's request, took 280 MB and on a slow
// processor longer than the clock check allows, which ended the daemon.
TEST_F(StatusMessagesTest, ForeignTextIsNotParsed) {
  using std::string_literals::operator""s;
  for (const std::string &text : {
           ""s,
           "status"s,
           "[{},{},{}]"s,
           R"({"service":"roam","cmd":"status"})"s,
           R"({"service":"internal_ipc","cmd":"status"})"s,
           R"({"service":"internal-ip","cmd":"c"})"s,
           R"({"service":"internal-","cmd":"ipc"})"s,
           R"({"service":"nternal-ipc","cmd":"status"})"s,
           "{\"service\":\"internal-\xC4\xB1pc\",\"cmd\":\"status\"}"s,
           "internal-internal-ip"s,
           "-ipc internal"s,
           "{\"service\":\"internal\0-ipc\",\"cmd\":\"status\"}"s,
           "\0{\"service\":\"internal-ipc\",\"cmd\":\"status\"}"s,
           "{}\0\\"s,
       }) {
    SCOPED_TRACE(text);
    wrapped_json::reset();
    EXPECT_EQ(kind_of(text), bus_message_kind::foreign);
    EXPECT_EQ(wrapped_json::texts_parsed(), 0u);
  }
}

// A text with the service's name in any letter case or a backslash, before any NUL, is parsed.
TEST_F(StatusMessagesTest, TextThatCanBeOfTheServiceIsParsed) {
  using std::string_literals::operator""s;
  const struct {
    std::string text;
    bus_message_kind kind;
  } forms[] = {
      {R"({"service":"internal-ipc"})"s, bus_message_kind::internal},
      {R"({"service":"INTERNAL-ipc"})"s, bus_message_kind::internal},
      {R"({"cmd":"status","service":"iNtErNaL-IpC"})"s, bus_message_kind::status_request},
      {R"({'service':'internal-ipc','cmd':'status'})"s, bus_message_kind::status_request},
      {"/* { */{\"service\":/**/\"internal-ipc\"// }\n}"s, bus_message_kind::internal},
      {R"({"nan":NaN,"inf":-Infinity,"service":"internal-ipc"})"s, bus_message_kind::internal},
      {R"({"service":"internal-ipc"}, or nearly)"s, bus_message_kind::internal},
      {"{\"service\":\"internal-ipc\"}\0["s, bus_message_kind::internal},
      {"{\"service\":\"internal-ipc\",\"bytes\":\"\xFF\x80\"}"s, bus_message_kind::internal},
      {R"({"service":"\u0069nternal-ipc"})"s, bus_message_kind::internal},
      {R"({"service":"internal-ip\u0043","cmd":"status"})"s, bus_message_kind::status_request},
      {R"({"service":"\u0049\u006E\u0074\u0065\u0072\u006e\u0061\u006c\u002d\u0069\u0070\u0063"})"s,
       bus_message_kind::internal},
      {R"({"\u0073ervice":"internal-ipc"})"s, bus_message_kind::internal},
      {R"({"service":"internal\u002dipc\u0000, or nearly"})"s, bus_message_kind::internal},
      {R"({"service":"roam","service":"internal\u002dipc"})"s, bus_message_kind::internal},
      {R"({"service":"internal\u002dipc","service":"roam"})"s, bus_message_kind::foreign},
      {R"({"service":"internal\/ipc"})"s, bus_message_kind::foreign},
      {R"({"service":"\ud800internal-ipc"})"s, bus_message_kind::foreign},
      {R"({"service":"internal\u005cu002dipc"})"s, bus_message_kind::foreign},
      {R"({"service":"roam","text":"internal-ipc"})"s, bus_message_kind::foreign},
      {R"({"internal-ipc":"service"})"s, bus_message_kind::foreign},
      {R"({"service":"an internal-ipc"})"s, bus_message_kind::foreign},
      {R"([{"service":"internal-ipc"}])"s, bus_message_kind::foreign},
      {R"({"service":{"service":"internal-ipc"}})"s, bus_message_kind::foreign},
      {"internal-ipc"s, bus_message_kind::foreign},
      {"internal-internal-ipc"s, bus_message_kind::foreign},
      {"[\"a\\\\b\"]"s, bus_message_kind::foreign},
      {"\\"s, bus_message_kind::foreign},
  };
  for (const auto &[text, kind] : forms) {
    SCOPED_TRACE(text);
    wrapped_json::reset();
    EXPECT_EQ(kind_of(text), kind);
    EXPECT_EQ(wrapped_json::texts_parsed(), 1u);
  }
}

// Each of the five ways through the check calls json_object_put once.
TEST_F(StatusMessagesTest, ParsedTextIsReleasedOnEveryPath) {
  for (const char *text :
       {R"({"service":"internal-ipc","cmd":"status"})", R"({"service":"internal-ipc"})",
        R"({"service":"internal-ipc","cmd":"x"})", R"({"service":"x","text":"internal-ipc"})",
        R"({"text":"internal-ipc"})"}) {
    SCOPED_TRACE(text);
    wrapped_json::reset();
    kind_of(text);
    EXPECT_THAT(wrapped_json::record(), ElementsAre("put"));
  }
}

} // namespace
} // namespace vemk
