#include "json/status_messages.h"

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "fakes/fake_mutex.h"
#include "log/log_module.h"
#include "support/logging_test.h"
#include "support/status_texts.h"
#include "unit/json/wrapped_json.h"

namespace vemk {
namespace {

using std::string_literals::operator""s;
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

  /// Each text is parsed once and released, or not at all.
  static void expect_kind(bus_message_kind kind, const std::vector<std::string> &texts,
                          bool is_parsed = true) {
    for (const std::string &text : texts) {
      SCOPED_TRACE(text.substr(0, 200));
      wrapped_json::reset();
      EXPECT_EQ(kind_of(text), kind);
      EXPECT_EQ(wrapped_json::texts_parsed(), is_parsed ? 1u : 0u);
      EXPECT_EQ(wrapped_json::record().size(), is_parsed ? 1u : 0u);
    }
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

  const std::string request = status_request;
  message_queue_t queue;
};

// Building.

// "disconnected", then "connected", each with one notify under the queue's mutex, and no byte more.
// One that comes back from the bus would be kept and not answered.
TEST_F(StatusMessagesTest, MessagesAreExactlyTheirThreeMembersAndGoToTheBackOfTheQueue) {
  std::vector<bool> held;
  queue.set_notify([&] { held.push_back(fake_mutex::is_held(queue.lock)); });
  queue_status_message(queue, false);
  queue_status_message(queue, true);
  EXPECT_THAT(held, ElementsAre(true, true));
  const std::vector<std::string> messages = take_all();
  EXPECT_THAT(messages, ElementsAre(disconnected_status, connected_status));
  expect_kind(bus_message_kind::internal, messages);
}

// Members "version", "service" and "cmd" are added in this order; tree and text are released.
TEST_F(StatusMessagesTest, MessageIsBuiltInOrderAndItsTreeReleased) {
  queue_status_message(queue, true);
  EXPECT_THAT(wrapped_json::record(),
              ElementsAre("object_add version", "object_add service", "object_add cmd", "put"));
  EXPECT_EQ(wrapped_json::texts_made(), 1u);
  EXPECT_EQ(wrapped_json::texts_alive(), 0u);
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
  EXPECT_THAT(fake_log::lines(), ElementsAre(no_memory_line()));
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

// service "internal-ipc" and cmd "status", in any letter case, order and company, 1 MiB as well.
TEST_F(StatusMessagesTest, StatusRequestIsRecognised) {
  expect_kind(bus_message_kind::status_request,
              {
                  request,
                  R"({"service":"INTERNAL-IPC","cmd":"STATUS"})",
                  R"({"service":"Internal-Ipc","cmd":"sTaTuS"})",
                  R"({"cmd":"status","service":"iNtErNaL-IpC"})",
                  R"({"cmd":"status","more":[1,{}],"service":"internal-ipc","version":"9"})",
                  "\n\t {\"service\" : \"internal-ipc\" ,\n\"cmd\" : \"status\" } \n",
                  R"({"service":"internal\u002dipc","cmd":"st\u0061tus"})",
                  R"({"service":"internal-ip\u0043","cmd":"status"})",
                  R"({"service":"other","service":"internal-ipc","cmd":"x","cmd":"status"})",
                  R"({'service':'internal-ipc','cmd':'status'})",
                  R"({"id-":"a--b-internal-","service":"internal-ipc","cmd":"status"})",
                  R"({"padding":")" + std::string(1024 * 1024, 'x') +
                      R"(","service":"internal-ipc","cmd":"status"})",
              });
}

// A missing or null cmd, any other cmd, and a key "Cmd": kept without an answer.
TEST_F(StatusMessagesTest, OtherMessagesOfTheServiceAreInternal) {
  expect_kind(bus_message_kind::internal,
              {
                  R"({"service":"internal-ipc"})",
                  R"({"service":"INTERNAL-ipc"})",
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
                  "/* { */{\"service\":/**/\"internal-ipc\"// }\n}",
                  R"({"nan":NaN,"inf":-Infinity,"service":"internal-ipc"})",
                  R"({"service":"internal-ipc"}, or nearly)",
                  "{\"service\":\"internal-ipc\"}\0["s,
                  "{\"service\":\"internal-ipc\",\"bytes\":\"\xFF\x80\"}",
                  R"({"service":"\u0069nternal-ipc"})",
                  R"({"service":"\u0049\u006E\u0074\u0065\u0072\u006e\u0061\u006c)"
                  R"(\u002d\u0069\u0070\u0063"})",
                  R"({"\u0073ervice":"internal-ipc"})",
                  R"({"service":"internal\u002dipc\u0000, or nearly"})",
                  R"({"service":"roam","service":"internal\u002dipc"})",
              });
}

// No JSON, no or another service: for the roaming service; parsed with the name or a backslash.
TEST_F(StatusMessagesTest, EverythingElseIsForeign) {
  expect_kind(bus_message_kind::foreign,
              {
                  "\"internal-ipc\"",
                  R"({"service":"internal-ipc","cmd":"status")",
                  R"({"service":"internal-ipc ","cmd":"status"})",
                  R"({"service":["internal-ipc"],"cmd":"status"})",
                  R"({"Service":"internal-ipc","cmd":"status"})",
                  R"([{"service":"internal-ipc","cmd":"status"}])",
                  R"({"service":"internal-ipc","service":"other","cmd":"status"})",
                  R"({"service":"internal\u002dipc","service":"roam"})",
                  R"({"service":"internal\/ipc"})",
                  R"({"service":"\ud800internal-ipc"})",
                  R"({"service":"internal\u005cu002dipc"})",
                  R"({"service":"roam","text":"internal-ipc"})",
                  R"({"text":"internal-ipc"})",
                  R"({"internal-ipc":"service"})",
                  R"({"service":"an internal-ipc"})",
                  R"({"service":{"service":"internal-ipc"}})",
                  "internal-ipc",
                  "internal-internal-ipc",
                  "[\"a\\\\b\"]",
                  "\\",
              });
}

// No text without the service's name in any letter case and without a backslash is parsed.
// Every message was: 1 MiB of "[{},{},...]", which is nobody's request, took 280 MB and on a slow
// processor longer than the clock check allows, which ended the daemon.
TEST_F(StatusMessagesTest, ForeignTextIsNotParsed) {
  expect_kind(bus_message_kind::foreign,
              {
                  "",
                  "status",
                  "null",
                  "5",
                  "{}",
                  "[]",
                  "{",
                  "[{},{},{}]",
                  R"({"cmd":"status"})",
                  R"({"service":null,"cmd":"status"})",
                  R"({"service":"","cmd":"status"})",
                  R"({"service":"internal","cmd":"status"})",
                  R"({"service":"roam","cmd":"status"})",
                  R"({"service":"internal_ipc","cmd":"status"})",
                  R"({"service":"internal-ip","cmd":"c"})",
                  R"({"service":"internal-","cmd":"ipc"})",
                  R"({"service":"nternal-ipc","cmd":"status"})",
                  "{\"service\":\"internal-\xC4\xB1pc\",\"cmd\":\"status\"}",
                  "internal-internal-ip",
                  "-ipc internal",
                  "{\"service\":\"internal\0-ipc\",\"cmd\":\"status\"}"s,
                  "\0"s + request,
                  "{}\0\\"s,
                  "\xFF\xFE\x80",
                  "{\"service\":\"\xFF\xFE\",\"cmd\":\"status\"}",
                  R"({"service":")" + std::string(1024 * 1024, 'x') + R"(","cmd":"status"})",
              },
              false);
}

// A buffer whose data is null is forwarded.
TEST_F(StatusMessagesTest, BufferWithoutDataIsForeign) {
  EXPECT_EQ(classify_bus_message(buffer_info_t()), bus_message_kind::foreign);
}

// With a NUL behind it a request is recognised, with one inside not; other bytes are another cmd.
TEST_F(StatusMessagesTest, NulBytesAndBytesThatAreNoUtf8AreHarmless) {
  expect_kind(bus_message_kind::status_request, {request + "\0binary"s});
  expect_kind(bus_message_kind::foreign, {"{\"service\":\"internal-ipc\",\0\"cmd\":\"status\"}"s});
  expect_kind(bus_message_kind::internal, {"{\"service\":\"internal-ipc\",\"cmd\":\"\xC3\"}"});
}

// A request inside 10 or 1,000,000 arrays, or with 1,000,000 beside it, is forwarded.
TEST_F(StatusMessagesTest, DeepNestingIsForeignAndNeverCrashes) {
  expect_kind(bus_message_kind::foreign, {nested_in(request, 10), nested_in(request, 1000000),
                                          R"({"service":"internal-ipc","cmd":"status","deep":)" +
                                              nested_in("", 1000000) + "}"});
}

} // namespace
} // namespace vemk
