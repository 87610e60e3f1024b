#include "worker/message_queue.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "fakes/fake_memory.h"
#include "fakes/fake_mutex.h"
#include "log/log_module.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using item_t = std::shared_ptr<buffer_info_t>;

item_t message(const std::string &text) {
  item_t item = std::make_shared<buffer_info_t>();
  item->append(text.data(), static_cast<std::uint32_t>(text.size()));
  return item;
}

std::string text_of(const item_t &item) {
  return item ? reinterpret_cast<const char *>(item->data) : "nothing";
}

int error_of(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const std::system_error &error) {
    return error.code().value();
  }
  return 0;
}

class MessageQueueTest : public testing::Test {
protected:
  MessageQueueTest() {
    fake_log::clear();
    g_log_level = 0xFFFF;
  }

  ~MessageQueueTest() override { g_log_level = 0; }

  message_queue_t queue;
};

} // namespace

// notify holds a target, and calling it changes nothing.
TEST_F(MessageQueueTest, NewQueueIsEmptyAndHoldsADoNothingNotify) {
  EXPECT_TRUE(queue.items.empty());
  ASSERT_TRUE(queue.notify);
  queue.notify();
  EXPECT_TRUE(queue.items.empty());
}

// try_pop returns null and take false, and a push after them works as before.
TEST_F(MessageQueueTest, EmptyQueueReportsNothingAndStaysAsItIs) {
  EXPECT_EQ(nullptr, queue.try_pop());
  EXPECT_FALSE(queue.take([](const item_t &) { ADD_FAILURE() << "called"; }));
  queue.push(message("a"));
  EXPECT_EQ("a", text_of(queue.try_pop()));
  EXPECT_EQ(nullptr, queue.try_pop());
}

// The reference count rises from 1 to 2, and the item is the caller's buffer itself.
TEST_F(MessageQueueTest, PushSharesTheBuffer) {
  const item_t item = message("a");
  queue.push(item);
  EXPECT_EQ(2, item.use_count());
  EXPECT_EQ(1u, queue.items.size());
  EXPECT_EQ(item, queue.items.front());
}

// The popped pointer holds the queue's share: 2 holders, then 1 when it is dropped.
TEST_F(MessageQueueTest, PopHandsTheShareOver) {
  const item_t item = message("a");
  queue.push(item);
  item_t popped = queue.try_pop();
  EXPECT_EQ(item, popped);
  EXPECT_EQ(2, item.use_count());
  popped.reset();
  EXPECT_EQ(1, item.use_count());
}

// 1000 items, more than 15 blocks of 64, leave as 0 to 999.
TEST_F(MessageQueueTest, ItemsLeaveInTheirOrderAcrossTheBlocksOfTheContainer) {
  for (int i = 0; i < 1000; ++i)
    queue.push(message(std::to_string(i)));
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(std::to_string(i), text_of(queue.try_pop()));
  EXPECT_EQ(nullptr, queue.try_pop());
}

// 200 rounds of three pushes and two pops take 0 to 399 in order and leave 200.
TEST_F(MessageQueueTest, OrderHoldsWhilePushesAndPopsAlternate) {
  int pushed = 0;
  int popped = 0;
  for (int round = 0; round < 200; ++round) {
    for (int i = 0; i < 3; ++i)
      queue.push(message(std::to_string(pushed++)));
    for (int i = 0; i < 2; ++i)
      ASSERT_EQ(std::to_string(popped++), text_of(queue.try_pop()));
  }
  EXPECT_EQ(200u, queue.items.size());
}

// The producer's pointer is gone, the item is whole when popped, and freed when dropped.
TEST_F(MessageQueueTest, BufferOutlivesItsProducersShare) {
  item_t item = message("a");
  const std::weak_ptr<buffer_info_t> watch = item;
  queue.push(item);
  item.reset();
  EXPECT_FALSE(watch.expired());
  item = queue.try_pop();
  EXPECT_EQ("a", text_of(item));
  item.reset();
  EXPECT_TRUE(watch.expired());
}

// It sees the sizes 1, 2 and 1 of three pushes and is not called by pops.
TEST_F(MessageQueueTest, NotifyRunsOnceForEveryPushAfterTheItemIsStored) {
  std::vector<std::size_t> sizes;
  queue.set_notify([&] { sizes.push_back(queue.items.size()); });
  queue.push(message("a"));
  queue.push(message("b"));
  queue.try_pop();
  queue.take([](const item_t &) {});
  queue.push(message("c"));
  EXPECT_THAT(sizes, ElementsAre(1, 2, 1));
}

// Another thread would have to wait for the lock meanwhile, and need not afterwards.
TEST_F(MessageQueueTest, NotifyRunsUnderTheLockOnThePushingThread) {
  bool held = false;
  std::thread::id caller;
  queue.set_notify([&] {
    held = fake_mutex::is_held(queue.lock);
    caller = std::this_thread::get_id();
  });
  std::thread::id producer_id;
  std::thread producer([&] {
    producer_id = std::this_thread::get_id();
    queue.push(message("a"));
  });
  producer.join();
  EXPECT_TRUE(held);
  EXPECT_EQ(producer_id, caller);
  EXPECT_FALSE(fake_mutex::is_held(queue.lock));
}

// A push over set_notify(nullptr) stores its item and throws nothing.
TEST_F(MessageQueueTest, NotifyWithoutATargetIsSkipped) {
  queue.set_notify(nullptr);
  queue.push(message("a"));
  EXPECT_EQ("a", text_of(queue.try_pop()));
}

// set_notify destroys the old target, and the next push calls the new one alone.
TEST_F(MessageQueueTest, ReplacedNotifyIsReleasedAndNoLongerCalled) {
  const auto old_target = std::make_shared<int>(0);
  int calls = 0;
  queue.set_notify([old_target] { ++*old_target; });
  queue.push(message("a"));
  queue.set_notify([&] { ++calls; });
  EXPECT_EQ(1, old_target.use_count());
  queue.push(message("b"));
  EXPECT_EQ(1, *old_target);
  EXPECT_EQ(1, calls);
}

// After it notify holds a target again, and a push only stores its item.
TEST_F(MessageQueueTest, ResetNotifyReleasesTheTargetAndHoldsTheDoNothingFunction) {
  const auto target = std::make_shared<int>(0);
  queue.set_notify([target] { ++*target; });
  queue.reset_notify();
  EXPECT_EQ(1, target.use_count());
  EXPECT_TRUE(queue.notify);
  queue.push(message("a"));
  EXPECT_EQ(0, *target);
  EXPECT_EQ("a", text_of(queue.try_pop()));
}

// set_notify and reset_notify lock the queue's mutex once each.
TEST_F(MessageQueueTest, SetNotifyTakesTheLock) {
  fake_mutex::watch(queue.lock);
  queue.set_notify([] {});
  EXPECT_EQ(1, fake_mutex::locks());
  queue.reset_notify();
  EXPECT_EQ(2, fake_mutex::locks());
}

// It leaves push, and the item can be popped.
TEST_F(MessageQueueTest, ExceptionOfNotifyLeavesTheItemStoredAndTheLockFree) {
  queue.set_notify([] { throw std::runtime_error("notify"); });
  EXPECT_THROW(queue.push(message("a")), std::runtime_error);
  EXPECT_FALSE(fake_mutex::is_held(queue.lock));
  EXPECT_EQ("a", text_of(queue.try_pop()));
}

// Two items go to the handler in order with the result true, the third call is false.
TEST_F(MessageQueueTest, TakeGivesTheFrontItemToTheHandler) {
  queue.push(message("a"));
  queue.push(message("b"));
  std::vector<std::string> taken;
  const auto handler = [&](const item_t &item) { taken.push_back(text_of(item)); };
  EXPECT_TRUE(queue.take(handler));
  EXPECT_THAT(taken, ElementsAre("a"));
  EXPECT_TRUE(queue.take(handler));
  EXPECT_FALSE(queue.take(handler));
  EXPECT_THAT(taken, ElementsAre("a", "b"));
}

// Inside it the item is already removed, the mutex free, and a push works.
TEST_F(MessageQueueTest, HandlerRunsWithoutTheLockAndMayUseTheQueue) {
  queue.push(message("a"));
  bool held = true;
  EXPECT_TRUE(queue.take([&](const item_t &item) {
    held = fake_mutex::is_held(queue.lock);
    EXPECT_TRUE(queue.items.empty());
    queue.push(item);
  }));
  EXPECT_FALSE(held);
  EXPECT_EQ("a", text_of(queue.try_pop()));
}

// A null pointer between two messages: the handler gets it, and take returns true as for them.
// It was taken out of the queue without the handler's knowledge, and counted as an empty queue.
TEST_F(MessageQueueTest, TakenNullPointerIsAnItemLikeAnyOther) {
  queue.push(message("a"));
  queue.push(nullptr);
  queue.push(message("b"));
  std::vector<std::string> taken;
  while (queue.take([&](const item_t &item) { taken.push_back(text_of(item)); })) {
  }
  EXPECT_THAT(taken, ElementsAre("a", "nothing", "b"));
  EXPECT_TRUE(queue.items.empty());
}

// 1 holder is left after a handler that keeps nothing, 2 after one that does.
TEST_F(MessageQueueTest, ItemIsReleasedAfterTheHandlerUnlessItKeepsIt) {
  const item_t item = message("a");
  item_t kept;
  queue.push(item);
  queue.take([](const item_t &) {});
  EXPECT_EQ(1, item.use_count());
  queue.push(item);
  queue.take([&](const item_t &taken) { kept = taken; });
  EXPECT_EQ(2, item.use_count());
}

// std::bad_function_call, the item is out of the queue, and the next one is in front.
TEST_F(MessageQueueTest, TakeWithAnEmptyHandlerThrowsAndReleasesTheItem) {
  const item_t item = message("a");
  queue.push(item);
  queue.push(message("b"));
  EXPECT_THROW(queue.take(nullptr), std::bad_function_call);
  EXPECT_EQ(1, item.use_count());
  EXPECT_EQ("b", text_of(queue.try_pop()));
}

// take(nullptr) on an empty queue returns false.
TEST_F(MessageQueueTest, EmptyHandlerDoesNotMatterWhenNothingIsTaken) {
  EXPECT_FALSE(queue.take(nullptr));
}

// It leaves take, and the item is neither held nor in the queue.
TEST_F(MessageQueueTest, ExceptionOfTheHandlerReleasesTheItem) {
  const item_t item = message("a");
  queue.push(item);
  EXPECT_THROW(queue.take([](const item_t &) { throw std::runtime_error("handler"); }),
               std::runtime_error);
  EXPECT_EQ(1, item.use_count());
  EXPECT_EQ(nullptr, queue.try_pop());
}

// EDEADLK comes out of push, try_pop, take and set_notify; nothing is logged.
TEST_F(MessageQueueTest, LockFailureIsThrownWithItsCodeAndChangesNothing) {
  int notified = 0;
  queue.set_notify([&] { ++notified; });
  queue.push(message("a"));
  fake_mutex::refuse(queue.lock, EDEADLK);
  EXPECT_EQ(EDEADLK, error_of([this] { queue.push(message("b")); }));
  EXPECT_EQ(EDEADLK, error_of([this] { queue.try_pop(); }));
  EXPECT_EQ(EDEADLK, error_of([this] { queue.take([](const item_t &) {}); }));
  EXPECT_EQ(EDEADLK, error_of([this] { queue.set_notify(nullptr); }));
  fake_mutex::watch(queue.lock);
  EXPECT_EQ(1, notified);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  EXPECT_EQ(1u, queue.items.size());
  EXPECT_TRUE(queue.notify);
}

// std::bad_alloc: no item more, no notify, no holder more, the lock free, nothing logged.
TEST_F(MessageQueueTest, NoMemoryToGrowThrowsAndLeavesTheQueueAsItWas) {
  int notified = 0;
  queue.set_notify([&] { ++notified; });
  const item_t item = message("a");
  int pushed = 0;
  bool threw = false;
  while (!threw && pushed < 1000) {
    const fake_memory::refused_new refused;
    try {
      queue.push(item);
      ++pushed;
    } catch (const std::bad_alloc &) {
      threw = true;
    }
  }
  EXPECT_TRUE(threw);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  EXPECT_EQ(pushed, notified);
  EXPECT_EQ(static_cast<std::size_t>(pushed), queue.items.size());
  EXPECT_EQ(1 + pushed, item.use_count());
  EXPECT_FALSE(fake_mutex::is_held(queue.lock));
}

// Three items are freed from the front, then what notify's target holds.
TEST(MessageQueueEndTest, DestructionFreesEveryItemThenNotify) {
  std::vector<std::string> released;
  const auto note = [&](const std::string &text) {
    return [&released, text](buffer_info_t *buffer) {
      released.push_back(text);
      delete buffer;
    };
  };
  {
    message_queue_t queue;
    for (const std::string text : {"a", "b", "c"})
      queue.push(item_t(new buffer_info_t, note(text)));
    queue.set_notify([held = item_t(new buffer_info_t, note("notify"))] {});
    EXPECT_THAT(released, IsEmpty());
  }
  EXPECT_THAT(released, ElementsAre("a", "b", "c", "notify"));
}

// An item with another holder is whole after the queue is destroyed.
TEST(MessageQueueEndTest, ItemsHeldElsewhereOutliveTheQueue) {
  const item_t item = message("a");
  {
    message_queue_t queue;
    queue.push(item);
  }
  EXPECT_EQ(1, item.use_count());
  EXPECT_EQ("a", text_of(item));
}

// 5000 messages of one thread arrive at the other in order while notify is set and reset.
// One thread produces, the other one consumes and points notify at itself and away from it, as the
// WebSocket worker does at each connection.
TEST_F(MessageQueueTest, ProducerAndConsumerMeetWithoutLossOrRace) {
  constexpr int count = 5000;
  std::atomic<int> wakes{0};
  std::thread producer([&] {
    for (int i = 0; i < count; ++i)
      queue.push(message(std::to_string(i)));
  });
  int taken = 0;
  bool in_order = true;
  for (int round = 0; taken < count; ++round) {
    if (round % 2 == 0)
      queue.set_notify([&] { ++wakes; });
    else
      queue.reset_notify();
    while (queue.take([&](const item_t &item) {
      in_order = in_order && text_of(item) == std::to_string(taken);
      ++taken;
    })) {
    }
    std::this_thread::yield();
  }
  producer.join();
  EXPECT_TRUE(in_order);
  EXPECT_EQ(nullptr, queue.try_pop());
  EXPECT_LE(wakes, count);
}

// What 500 targets used is destroyed right after reset_notify, with another thread pushing.
TEST_F(MessageQueueTest, OldTargetIsNeitherRunningNorCalledAfterItsReplacement) {
  std::atomic<bool> done{false};
  std::thread producer([&] {
    while (!done) {
      queue.push(message("a"));
      queue.try_pop();
    }
  });
  for (int i = 0; i < 500; ++i) {
    auto connection = std::make_unique<int>(0);
    queue.set_notify([target = connection.get()] { ++*target; });
    std::this_thread::yield();
    queue.reset_notify();
    connection.reset();
  }
  done = true;
  producer.join();
}

} // namespace vemk
