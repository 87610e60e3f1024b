// Waiting for messages with the bus's descriptor, in place of asking again and again.

#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <poll.h>

#include "bus_test_base.h"

namespace vemk {
namespace {

using std::chrono::milliseconds;

class ModuleBusWaitTest : public joined_bus_test {
protected:
  static bool is_readable(milliseconds time) {
    pollfd item{GetMsgDescriptor(), POLLIN, 0};
    return poll(&item, 1, static_cast<int>(time.count())) == 1 && item.revents == POLLIN;
  }

  /// The next payload, as a module takes it that waits only after a receive without a message.
  std::optional<std::string> awaited_payload() {
    while (true) {
      if (void *record = GetMsgFromQueueNoWait())
        return take(record).substr(record_head);
      ++waits;
      if (!is_readable(soon))
        return std::nullopt;
    }
  }

  /// True once a wait after a receive has no end for 100 ms. The messaging library's own events,
  /// such as a new connection, come to an end; a descriptor that stays readable does not.
  static bool becomes_quiet() {
    for (const bus_deadline end = in(soon); std::chrono::steady_clock::now() < end;) {
      EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
      if (!is_readable(milliseconds(100)))
        return true;
    }
    return false;
  }

  int waits = 0;
};

// A message makes the descriptor readable until it is taken, for a wait that begins later, too.
TEST_F(ModuleBusWaitTest, AMessageEndsTheWaitAndLaterOnesUntilItIsTaken) {
  bus_sender sender(folder, daemon_module);
  for (const char *text : {"one", "two"}) {
    ASSERT_TRUE(becomes_quiet());
    ASSERT_TRUE(sender.send(text, in(soon)));
    EXPECT_TRUE(is_readable(soon));
    EXPECT_TRUE(is_readable(milliseconds(0)));
    EXPECT_EQ(awaited_payload(), text);
  }
  EXPECT_TRUE(becomes_quiet());
}

// A descriptor that is first requested after SetModuleLoop(0) is readable at once.
TEST_F(ModuleBusWaitTest, TheFirstRequestMayComeAfterTheFlagWasCleared) {
  SetModuleLoop(0);
  EXPECT_TRUE(is_readable(milliseconds(0)));
}

// SetModuleLoop(0) and a leave make it readable, also after a receive, until ModulePeerStart.
TEST_F(ModuleBusWaitTest, AClearedFlagEndsEveryWait) {
  ASSERT_TRUE(becomes_quiet());
  SetModuleLoop(0);
  EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
  EXPECT_TRUE(is_readable(milliseconds(0)));
  ASSERT_EQ(ModulePeerStart(), 0);
  ASSERT_TRUE(becomes_quiet());

  bus_sender sender(folder, daemon_module);
  ASSERT_TRUE(sender.send_leave(in(soon)));
  while (GetModuleLoop() != 0) {
    ASSERT_TRUE(is_readable(soon));
    EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
  }
  EXPECT_TRUE(is_readable(milliseconds(0)));
}

// Two malformed messages end a receive each without a message; no wait sleeps over the good one.
TEST_F(ModuleBusWaitTest, AMessageBehindMalformedOnesIsNotSleptOver) {
  ASSERT_TRUE(becomes_quiet());
  const malformed_sender sender(folder);
  EXPECT_EQ(awaited_payload(), "good");
}

// A new listener is greeted by a module that receives only when the descriptor is readable.
TEST_F(ModuleBusWaitTest, ANewListenerEndsTheWait) {
  ASSERT_TRUE(becomes_quiet());
  bus_listener listener(folder, daemon_module);
  auto greeted =
      std::async(std::launch::async, [&] { return listener.wait_until_subscribed(in(soon)); });
  while (greeted.wait_for(milliseconds(0)) != std::future_status::ready) {
    if (is_readable(one_poll)) {
      EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
    }
  }
  EXPECT_TRUE(greeted.get());
}

// 10,000 messages, each answered, arrive in order with waits under 5 s, at most two for a message.
TEST_F(ModuleBusWaitTest, NoWaitOfABurstSleepsOverAMessage) {
  constexpr int burst = 10000;
  constexpr int lot = 100; // Between lots the module has nothing to do but wait.
  subscribed_listener listener(folder);
  std::thread sending([this] {
    bus_sender sender(folder, daemon_module);
    for (int i = 0; i < burst; ++i) {
      EXPECT_TRUE(sender.send(std::to_string(i), in(soon)));
      EXPECT_TRUE(i % lot != 0 || sender.wait_until_taken(in(soon)));
    }
  });
  std::optional<std::string> payload("");
  for (int i = 0; i < burst && payload; ++i) {
    payload = awaited_payload();
    EXPECT_EQ(payload, std::to_string(i));
    EXPECT_EQ(send("answer"), 0);
  }
  sending.join();
  EXPECT_GE(waits, burst / lot);
  EXPECT_LE(waits, 2 * burst);
}

// In three stays two descriptors come with the first request and go at the leave; away it gives -1.
TEST_F(ModuleBusWaitTest, EachStayHasItsDescriptor) {
  leave();
  const std::size_t away = open_descriptors();
  for (int stay = 0; stay < 3; ++stay) {
    EXPECT_EQ(GetMsgDescriptor(), -1);
    ASSERT_EQ(join(), 0);
    const std::size_t joined = open_descriptors();
    const int descriptor = GetMsgDescriptor();
    EXPECT_GE(descriptor, 0);
    EXPECT_EQ(open_descriptors(), joined + 2);
    EXPECT_EQ(GetMsgDescriptor(), descriptor);
    EXPECT_EQ(open_descriptors(), joined + 2);
    {
      bus_sender sender(folder, daemon_module);
      ASSERT_TRUE(sender.send("again", in(soon)));
      EXPECT_EQ(awaited_payload(), "again");
    }
    leave();
    EXPECT_EQ(open_descriptors(), away) << "stay " << stay;
  }
}

} // namespace
} // namespace vemk
