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

#include "fakes/fake_memory.h"
#include "fakes/fake_mutex.h"
#include "support/buffers.h"
#include "support/logging_test.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using item_t = std::shared_ptr<buffer_info_t>;

std::string text(const item_t &item) {
  return item ? text_of(*item) : "nothing";
}

int error_of(const std::function<void()> &operation) {
  try {
    operation();
  } catch (const std::system_error &error) {
    return error.code().value();
  }
  return 0;
}

class MessageQueueTest : public LoggingTest {
protected:
  MessageQueueTest() : LoggingTest(0xFFFF) {}

  void expect_last(const std::string &expected) {
    EXPECT_THAT(take_all(queue), ElementsAre(expected));
  }

  message_queue_t queue;
};

} // namespace

// notify holds a target, and calling it changes nothing; a push works without a target, too.
TEST_F(MessageQueueTest, NewQueueIsEmptyAndHoldsADoNothingNotify) {
  EXPECT_TRUE(queue.items.empty());
  ASSERT_TRUE(queue.notify);
  queue.notify();
  EXPECT_TRUE(queue.items.empty());
  queue.set_notify(nullptr);
  queue.push(buffer_of("a"));
  expect_last("a");
}

// try_pop returns null and take false, take(nullptr) too, and a push after them works as before.
TEST_F(MessageQueueTest, EmptyQueueReportsNothingAndStaysAsItIs) {
  EXPECT_EQ(nullptr, queue.try_pop());
  EXPECT_FALSE(queue.take([](const item_t &) { ADD_FAILURE() << "called"; }));
  EXPECT_FALSE(queue.take(nullptr));
  queue.push(buffer_of("a"));
  expect_last("a");
}

// The item is the caller's buffer itself: 2 holders, its producer may drop it, then the popper.
TEST_F(MessageQueueTest, PushSharesTheBufferAndPopHandsTheShareOver) {
  item_t item = buffer_of("a");
  const std::weak_ptr<buffer_info_t> watch = item;
  queue.push(item);
  EXPECT_EQ(2, watch.use_count());
  EXPECT_EQ(1u, queue.items.size());
  EXPECT_EQ(item, queue.items.front());
  item.reset();
  EXPECT_EQ(1, watch.use_count());
  item = queue.try_pop();
  EXPECT_EQ(1, watch.use_count());
  EXPECT_EQ("a", text(item));
  item.reset();
  EXPECT_TRUE(watch.expired());
}

// 1000 rounds of three pushes and two pops, blocks of the container long, take 0 to 1999 in order.
TEST_F(MessageQueueTest, ItemsLeaveInTheirOrderAcrossTheBlocksOfTheContainer) {
  int pushed = 0;
  int popped = 0;
  for (int round = 0; round < 1000; ++round) {
    for (int i = 0; i < 3; ++i)
      queue.push(buffer_of(std::to_string(pushed++)));
    for (int i = 0; i < 2; ++i)
      ASSERT_EQ(std::to_string(popped++), text(queue.try_pop()));
  }
  EXPECT_EQ(1000u, queue.items.size());
  while (popped < pushed)
    ASSERT_EQ(std::to_string(popped++), text(queue.try_pop()));
  EXPECT_EQ(nullptr, queue.try_pop());
}

// Pushes of 3, 0 and 2 bytes and of null count 5; the item under way in take() is not counted.
TEST_F(MessageQueueTest, PayloadBytesAreThoseOfTheItemsInIt) {
  EXPECT_EQ(0u, queue.payload_bytes());
  for (const char *item : {"abc", "", "de"})
    queue.push(buffer_of(item));
  queue.push(nullptr);
  EXPECT_EQ(5u, queue.payload_bytes());
  queue.take([this](const item_t &) { EXPECT_EQ(2u, queue.payload_bytes()); });
  queue.try_pop();
  EXPECT_EQ(2u, queue.payload_bytes());
  take_all(queue);
  EXPECT_EQ(0u, queue.payload_bytes());
}

// notify_consumer() calls notify as a push does, with the lock held, and without a target nothing.
TEST_F(MessageQueueTest, ConsumerCanBeNotifiedWithoutAnItem) {
  int calls = 0;
  queue.set_notify([&] {
    ++calls;
    std::thread other([&] { EXPECT_FALSE(queue.lock.try_lock()); });
    other.join();
  });
  queue.notify_consumer();
  EXPECT_EQ(1, calls);
  EXPECT_TRUE(queue.items.empty());
  queue.set_notify(nullptr);
  queue.notify_consumer();
}

// It sees the sizes 1, 2 and 1 of three pushes and is not called by pops.
TEST_F(MessageQueueTest, NotifyRunsOnceForEveryPushAfterTheItemIsStored) {
  std::vector<std::size_t> sizes;
  queue.set_notify([&] { sizes.push_back(queue.items.size()); });
  queue.push(buffer_of("a"));
  queue.push(buffer_of("b"));
  queue.try_pop();
  queue.take([](const item_t &) {});
  queue.push(buffer_of("c"));
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
    queue.push(buffer_of("a"));
  });
  producer.join();
  EXPECT_TRUE(held);
  EXPECT_EQ(producer_id, caller);
  EXPECT_FALSE(fake_mutex::is_held(queue.lock));
}

// set_notify destroys the old target and the next push calls the new one; reset_notify leaves none.
TEST_F(MessageQueueTest, ReplacedNotifyIsReleasedAndNoLongerCalled) {
  const auto first = std::make_shared<int>(0);
  const auto second = std::make_shared<int>(0);
  queue.set_notify([first] { ++*first; });
  queue.push(buffer_of("a"));
  queue.set_notify([second] { ++*second; });
  EXPECT_EQ(1, first.use_count());
  queue.push(buffer_of("b"));
  queue.reset_notify();
  EXPECT_EQ(1, second.use_count());
  EXPECT_TRUE(queue.notify);
  queue.push(buffer_of("c"));
  EXPECT_EQ(1, *first);
  EXPECT_EQ(1, *second);
  EXPECT_THAT(take_all(queue), ElementsAre("a", "b", "c"));
}

// It leaves push, and the item can be popped.
TEST_F(MessageQueueTest, ExceptionOfNotifyLeavesTheItemStoredAndTheLockFree) {
  queue.set_notify([] { throw std::runtime_error("notify"); });
  EXPECT_THROW(queue.push(buffer_of("a")), std::runtime_error);
  EXPECT_FALSE(fake_mutex::is_held(queue.lock));
  expect_last("a");
}

// Three items, a null pointer among them, go to the handler in order; true, and then false.
// A null pointer was taken out without the handler's knowledge, and counted as an empty queue.
TEST_F(MessageQueueTest, TakeGivesTheFrontItemToTheHandler) {
  queue.push(buffer_of("a"));
  queue.push(nullptr);
  queue.push(buffer_of("b"));
  std::vector<std::string> taken;
  const auto handler = [&](const item_t &item) { taken.push_back(text(item)); };
  for (std::size_t count = 1; count <= 3; ++count) {
    EXPECT_TRUE(queue.take(handler));
    EXPECT_EQ(count, taken.size());
  }
  EXPECT_FALSE(queue.take(handler));
  EXPECT_THAT(taken, ElementsAre("a", "nothing", "b"));
}

// Inside it the item is already removed, the mutex free, and a push works.
TEST_F(MessageQueueTest, HandlerRunsWithoutTheLockAndMayUseTheQueue) {
  queue.push(buffer_of("a"));
  bool held = true;
  EXPECT_TRUE(queue.take([&](const item_t &item) {
    held = fake_mutex::is_held(queue.lock);
    EXPECT_TRUE(queue.items.empty());
    queue.push(item);
  }));
  EXPECT_FALSE(held);
  expect_last("a");
}

// 1 holder is left after a handler that keeps nothing or throws, 2 after one that keeps it.
TEST_F(MessageQueueTest, ItemIsReleasedAfterTheHandlerUnlessItKeepsIt) {
  const item_t item = buffer_of("a");
  item_t kept;
  queue.push(item);
  queue.take([](const item_t &) {});
  EXPECT_EQ(1, item.use_count());
  queue.push(item);
  EXPECT_THROW(queue.take([](const item_t &) { throw std::runtime_error("handler"); }),
               std::runtime_error);
  EXPECT_EQ(1, item.use_count());
  queue.push(item);
  queue.take([&](const item_t &taken) { kept = taken; });
  EXPECT_EQ(2, item.use_count());
  EXPECT_EQ(nullptr, queue.try_pop());
}

// std::bad_function_call, the item is out of the queue, and the next one is in front.
TEST_F(MessageQueueTest, TakeWithAnEmptyHandlerThrowsAndReleasesTheItem) {
  const item_t item = buffer_of("a");
  queue.push(item);
  queue.push(buffer_of("b"));
  EXPECT_THROW(queue.take(nullptr), std::bad_function_call);
  EXPECT_EQ(1, item.use_count());
  expect_last("b");
}

// All five lock once: EDEADLK comes out of each, and nothing is changed or logged.
TEST_F(MessageQueueTest, LockFailureIsThrownWithItsCodeAndChangesNothing) {
  int notified = 0;
  queue.set_notify([&] { ++notified; });
  queue.push(buffer_of("a"));
  fake_mutex::refuse(queue.lock, EDEADLK);
  EXPECT_EQ(EDEADLK, error_of([this] { queue.push(buffer_of("b")); }));
  EXPECT_EQ(EDEADLK, error_of([this] { queue.try_pop(); }));
  EXPECT_EQ(EDEADLK, error_of([this] { queue.take([](const item_t &) {}); }));
  EXPECT_EQ(EDEADLK, error_of([this] { queue.set_notify(nullptr); }));
  EXPECT_EQ(EDEADLK, error_of([this] { queue.reset_notify(); }));
  EXPECT_EQ(5, fake_mutex::locks());
  fake_mutex::watch(queue.lock);
  EXPECT_EQ(1, notified);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
  EXPECT_EQ(1u, queue.items.size());
  queue.notify();
  EXPECT_EQ(2, notified);
}

// std::bad_alloc: no item more, no notify, no holder more, the lock free, nothing logged.
TEST_F(MessageQueueTest, NoMemoryToGrowThrowsAndLeavesTheQueueAsItWas) {
  int notified = 0;
  queue.set_notify([&] { ++notified; });
  const item_t item = buffer_of("a");
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

// Three items are freed from the front, then what notify's target holds; not one held elsewhere.
TEST(MessageQueueEndTest, DestructionFreesEveryItemThenNotify) {
  std::vector<std::string> released;
  const auto noted = [&](const std::string &text) {
    return item_t(new buffer_info_t, [&released, text](buffer_info_t *buffer) {
      released.push_back(text);
      delete buffer;
    });
  };
  const item_t held = buffer_of("held");
  {
    message_queue_t queue;
    for (const item_t &item : {noted("a"), held, noted("b"), noted("c")})
      queue.push(item);
    queue.set_notify([target = noted("notify")] {});
    EXPECT_THAT(released, IsEmpty());
  }
  EXPECT_THAT(released, ElementsAre("a", "b", "c", "notify"));
  EXPECT_EQ(1, held.use_count());
  EXPECT_EQ("held", text(held));
}

// 5000 messages of one thread arrive at the other in order while notify is set and reset.
// One thread produces, the other one consumes and points notify at itself and away from it, as the
// WebSocket worker does at each connection.
TEST_F(MessageQueueTest, ProducerAndConsumerMeetWithoutLossOrRace) {
  constexpr int count = 5000;
  std::atomic<int> wakes{0};
  std::thread producer([&] {
    for (int i = 0; i < count; ++i)
      queue.push(buffer_of(std::to_string(i)));
  });
  int taken = 0;
  bool in_order = true;
  for (int round = 0; taken < count; ++round) {
    if (round % 2 == 0)
      queue.set_notify([&] { ++wakes; });
    else
      queue.reset_notify();
    while (queue.take([&](const item_t &item) {
      in_order = in_order && text(item) == std::to_string(taken);
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
      queue.push(buffer_of("a"));
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
