#include <algorithm>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "bus_test_base.h"

namespace vemk {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// What the messaging library's own thread may take to connect, deliver or disconnect; it tells
// nobody when it has.
constexpr std::chrono::milliseconds connection_time{300};

class ModuleBusTest : public bus_test_base {};

class JoinedModuleTest : public joined_bus_test {
protected:
  bus_sender sender{folder, daemon_module};
};

// ModulePeerStart sets the flag, ModulePeerStop keeps it, SetModuleLoop(0) clears it.
TEST_F(ModuleBusTest, JoiningSetsTheModuleLoopFlagAndLeavingDoesNotTouchIt) {
  EXPECT_EQ(GetModuleLoop(), 0);
  EXPECT_EQ(join(), 0);
  EXPECT_NE(GetModuleLoop(), 0);
  ModulePeerStop();
  EXPECT_NE(GetModuleLoop(), 0);
  SetModuleLoop(0);
  EXPECT_EQ(GetModuleLoop(), 0);
}

// Leaving twice, before a start and after one, does no harm to the next join.
TEST_F(ModuleBusTest, ClosingCallsMayComeTwiceOrWithoutAStart) {
  leave();
  leave();
  EXPECT_EQ(join(), 0);
  leave();
  leave();
  EXPECT_EQ(GetModuleLoop(), 0);
  EXPECT_EQ(join(), 0);
}

// InitLibParams gives -1 for identifier -1, a null list or count -1, and 0 for {-2, 0}.
TEST_F(ModuleBusTest, RefusesBadParameters) {
  const signed char list[] = {-2, 0};
  EXPECT_EQ(InitLibParams(daemon_module, list, 2), 0);
  EXPECT_EQ(InitLibParams(-1, list, 2), -1);
  EXPECT_EQ(InitLibParams(daemon_module, nullptr, 2), -1);
  EXPECT_EQ(InitLibParams(daemon_module, list, -1), -1);
}

// -1, flag 0, and one line "VEMk: cannot join the bus: ..." for two attempts.
TEST_F(ModuleBusTest, AFailedStartLeavesTheFlagAndSaysWhyOnce) {
  setenv("MODULE_BUS_DIR", (folder + "/missing/bus").c_str(), 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(join(), -1);
  EXPECT_EQ(join(), -1);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(GetModuleLoop(), 0);
  EXPECT_THAT(said, AllOf(StartsWith("VEMk: cannot join the bus: "), HasSubstr("mkdir")));
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
}

// ModulePeerStart without InitLibParams gives -1 and "call InitLibParams first".
TEST_F(ModuleBusTest, StartWithoutParametersFails) {
  FreeLibParams();
  testing::internal::CaptureStderr();
  EXPECT_EQ(ModulePeerStart(), -1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("call InitLibParams first"));
}

// GetMsgFromQueueNoWait returns null, before a join and after it.
TEST_F(ModuleBusTest, ThereIsNoMessageWhenNoneWasSentOrNobodyJoined) {
  EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
  ASSERT_EQ(join(), 0);
  EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
}

// A record is 13 bytes, the length in bytes 4 to 7, and the payload, NUL included, or none at all.
TEST_F(JoinedModuleTest, ARecordHoldsTheLengthAtFourAndThePayloadAtThirteen) {
  for (const std::string &payload : {std::string("a\0%n\xff", 5), std::string()}) {
    ASSERT_TRUE(sender.send(payload, in(soon)));
    std::string head(13, '\0');
    const auto length = static_cast<std::uint32_t>(payload.size());
    std::memcpy(head.data() + 4, &length, sizeof length);
    EXPECT_EQ(next_record(), head + payload);
  }
}

// Three messages come in order; the sender knows them taken once the third is fetched.
TEST_F(JoinedModuleTest, MessagesOfOneSenderComeInOrderAndAreAnswered) {
  for (const char *text : {"one", "two", "three"})
    ASSERT_TRUE(sender.send(text, in(soon)));
  EXPECT_FALSE(sender.wait_until_taken(in(one_poll)));
  EXPECT_EQ(next_payload(), "one");
  EXPECT_EQ(next_payload(), "two");
  EXPECT_FALSE(sender.wait_until_taken(in(one_poll)));
  EXPECT_EQ(next_payload(), "three");
  EXPECT_TRUE(sender.wait_until_taken(in(soon)));
}

// A message sent before the join is not confirmed within 10 ms; it arrives after it and is.
TEST_F(ModuleBusTest, AMessageForAModuleThatIsNotThereYetReachesItWhenItJoins) {
  bus_sender sender(folder, daemon_module);
  EXPECT_TRUE(sender.send("text", in(soon)));
  EXPECT_FALSE(sender.wait_until_taken(in(one_poll)));
  ASSERT_EQ(join(), 0);
  EXPECT_EQ(next_payload(), "text");
  EXPECT_TRUE(sender.wait_until_taken(in(soon)));
}

// The message before a leave comes first, then the flag goes to 0; both are confirmed 300 ms later.
// The answer was dropped when the connection ended before the sender had looked for it.
TEST_F(JoinedModuleTest, LeaveClearsTheFlagAfterTheMessagesBeforeIt) {
  ASSERT_TRUE(sender.send("before", in(soon)));
  ASSERT_TRUE(sender.send_leave(in(soon)));
  EXPECT_EQ(next_payload(), "before");
  EXPECT_NE(GetModuleLoop(), 0);
  const bus_deadline end = in(soon);
  while (GetModuleLoop() != 0 && std::chrono::steady_clock::now() < end)
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
  EXPECT_EQ(GetModuleLoop(), 0);
  leave();
  std::this_thread::sleep_for(connection_time);
  EXPECT_TRUE(sender.wait_until_taken(in(soon)));
}

// What a module had not fetched when it left is gone and never confirmed.
TEST_F(JoinedModuleTest, AMessageThatWasLostWithItsModuleIsNotTakenForDelivered) {
  ASSERT_TRUE(sender.send("text", in(soon)));
  std::this_thread::sleep_for(connection_time);
  leave();
  ASSERT_EQ(join(), 0);
  EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
  EXPECT_FALSE(sender.wait_until_taken(in(one_poll)));
}

// Two listeners get both messages in order, once each.
TEST_F(JoinedModuleTest, EveryListenerGetsEveryMessage) {
  subscribed_listener first(folder);
  subscribed_listener second(folder);
  for (const char *text : {"one", "two"})
    EXPECT_EQ(send(text), 0);
  for (bus_listener *listener : {&first, &second}) {
    EXPECT_EQ(listener->receive(in(soon)), "one");
    EXPECT_EQ(listener->receive(in(soon)), "two");
    EXPECT_EQ(listener->receive(in(one_poll)), std::nullopt);
  }
}

// 1, 1023, 1024, 1025, 2048 and 2049 bytes pass unchanged to a listener.
TEST_F(JoinedModuleTest, PayloadsAroundTheSizeOfAPiecePassUnchanged) {
  subscribed_listener listener(folder);
  for (const std::size_t size : {1U, 1023U, 1024U, 1025U, 2048U, 2049U}) {
    std::string payload(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
      payload[i] = static_cast<char>(i % 251);
    ASSERT_EQ(send(payload), 0);
    EXPECT_EQ(listener.receive(in(soon)), payload) << size << " bytes";
  }
}

// -1 before the join, for destination 2, null data, length 0 and beyond 64 MiB.
TEST_F(ModuleBusTest, SendingRefusesWhatItCannotSendAndSendsNothing) {
  EXPECT_EQ(send("not joined"), -1);
  ASSERT_EQ(join(), 0);
  subscribed_listener listener(folder);
  EXPECT_EQ(MsgSend("text", 2, 4), -1);
  EXPECT_EQ(MsgSend(nullptr, 3, 4), -1);
  EXPECT_EQ(MsgSend("text", 3, 0), -1);
  const std::string too_long(max_payload_bytes + 1, 'x');
  EXPECT_EQ(send(too_long), -1);
  EXPECT_EQ(send("last"), 0);
  EXPECT_EQ(listener.receive(in(soon)), "last");
}

// A listener hears the first message of each of three stays and misses none.
TEST_F(ModuleBusTest, TheFirstMessageAfterAJoinReachesAListenerThatWasWaiting) {
  bus_listener listener(folder, daemon_module);
  for (const char *text : {"first stay", "second stay", "third stay"}) {
    auto heard = std::async(std::launch::async, [&] { return listener.receive(in(soon)); });
    ASSERT_EQ(join(), 0);
    ASSERT_EQ(send(text), 0);
    EXPECT_EQ(heard.get(), text);
    leave();
  }
  EXPECT_EQ(listener.lost(), 0U);
}

// Ten stays: messages arrive in each, and no descriptor stays open after it.
TEST_F(ModuleBusTest, JoinsAgainTenTimesWithTheSameDescriptors) {
  const std::size_t descriptors = open_descriptors();
  for (int round = 0; round < 10; ++round) {
    ASSERT_EQ(join(), 0);
    EXPECT_GT(open_descriptors(), descriptors);
    {
      bus_sender sender(folder, daemon_module);
      ASSERT_TRUE(sender.send("again", in(soon)));
      EXPECT_EQ(next_payload(), "again");
    }
    leave();
    EXPECT_EQ(open_descriptors(), descriptors) << "round " << round;
  }
}

// 2.in and 2.out exist while joined; of all sockets none is left after the leave, only the lock.
TEST_F(JoinedModuleTest, LeavingRemovesTheSockets) {
  EXPECT_TRUE(std::filesystem::exists(inbox_path(folder, daemon_module)));
  EXPECT_TRUE(std::filesystem::exists(outlet_path(folder, daemon_module)));
  leave();
  for (const auto &entry : std::filesystem::directory_iterator(folder))
    EXPECT_EQ(entry.path(), lock_path(folder, daemon_module));
}

// Empty messages and those of unknown kind are dropped; the good one behind them arrives.
TEST_F(JoinedModuleTest, MalformedInboxMessagesAreDropped) {
  const malformed_sender sender_of_three(folder);
  EXPECT_EQ(next_payload(), "good");
  EXPECT_NE(GetModuleLoop(), 0);
}

} // namespace
} // namespace vemk
