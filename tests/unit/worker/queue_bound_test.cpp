#include "worker/queue_bound.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/buffers.h"

namespace vemk {
namespace {

constexpr std::size_t limit = 1024 * 1024;

class QueueBoundTest : public testing::Test {
protected:
  QueueBoundTest() {
    producers_queue.set_notify([this] { ++wakeups; });
  }

  void push(std::size_t bytes) { queue.push(buffer_of(std::string(bytes, 'x'))); }

  void take() {
    EXPECT_NE(queue.try_pop(), nullptr);
    bound.after_take();
  }

  message_queue_t queue;
  message_queue_t producers_queue;
  queue_bound bound{&queue, &producers_queue};
  int wakeups = 0;
};

// With 1048575 bytes the producer goes on, with one more it stops.
TEST_F(QueueBoundTest, ProducerStopsAtOneMebibyte) {
  EXPECT_FALSE(bound.stops_producer());
  push(limit - 1);
  EXPECT_FALSE(bound.stops_producer());
  push(1);
  EXPECT_TRUE(bound.stops_producer());
}

// One message may be of any size: behind one of 3 MiB the producer stops.
TEST_F(QueueBoundTest, LargeMessageMayGoBeyondTheLimit) {
  push(3 * limit);
  EXPECT_TRUE(bound.stops_producer());
  take();
  EXPECT_FALSE(bound.stops_producer());
}

// It stays stopped down to 524289 bytes; at 524288 it is woken, once, and goes on.
TEST_F(QueueBoundTest, ProducerGoesOnWithHalfOfTheLimit) {
  push(limit / 2 - 1);
  push(1);
  push(limit / 2);
  push(1);
  EXPECT_TRUE(bound.stops_producer());
  take();
  EXPECT_TRUE(bound.stops_producer());
  EXPECT_EQ(wakeups, 0);
  take();
  EXPECT_EQ(wakeups, 0);
  EXPECT_TRUE(bound.stops_producer());
  take();
  EXPECT_EQ(wakeups, 1);
  take();
  EXPECT_EQ(wakeups, 1);
  EXPECT_FALSE(bound.stops_producer());
}

// Without a stop nothing that is taken wakes the producer.
TEST_F(QueueBoundTest, ProducerThatWasNotStoppedIsNotWoken) {
  push(limit);
  take();
  take_all(queue);
  bound.after_take();
  EXPECT_EQ(wakeups, 0);
}

// The stop and the wake-up repeat with each filling.
TEST_F(QueueBoundTest, EveryStopHasItsWakeup) {
  for (int round = 1; round <= 3; ++round) {
    push(limit);
    EXPECT_TRUE(bound.stops_producer());
    take();
    EXPECT_EQ(wakeups, round);
    EXPECT_FALSE(bound.stops_producer());
  }
}

// A message that is taken between the producer's look and its stop: the producer goes on.
TEST_F(QueueBoundTest, QueueThatEmptiesBeforeTheStopIsSeenStopsNobody) {
  push(limit);
  EXPECT_TRUE(bound.stops_producer());
  // The consumer takes it, and looks for the stop too early.
  queue.try_pop();
  EXPECT_FALSE(bound.stops_producer());
  bound.after_take();
  EXPECT_EQ(wakeups, 0);
}

// Of 2000 messages of 64 KiB the queue never holds more than 1 MiB and one, and all pass.
TEST_F(QueueBoundTest, NoWakeupIsLostBetweenTwoThreads) {
  constexpr int messages = 2000;
  const auto message = buffer_of(std::string(limit / 16, 'x'));
  std::mutex lock;
  std::condition_variable woken;
  bool is_woken = false;
  producers_queue.set_notify([&] {
    const std::lock_guard<std::mutex> guard(lock);
    is_woken = true;
    woken.notify_one();
  });
  std::size_t most_bytes = 0;
  bool is_lost = false;
  std::thread producer([&] {
    for (int i = 0; i < messages; ++i) {
      while (!is_lost && bound.stops_producer()) {
        std::unique_lock<std::mutex> guard(lock);
        is_lost = !woken.wait_for(guard, std::chrono::seconds(30), [&] { return is_woken; });
        is_woken = false;
      }
      queue.push(message);
      most_bytes = std::max(most_bytes, queue.payload_bytes());
    }
  });
  for (int taken = 0; taken < messages;) {
    if (queue.try_pop() == nullptr)
      std::this_thread::yield();
    else {
      bound.after_take();
      ++taken;
    }
  }
  producer.join();
  EXPECT_FALSE(is_lost);
  EXPECT_LE(most_bytes, limit + limit / 16);
}

} // namespace
} // namespace vemk
