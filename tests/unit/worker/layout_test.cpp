// How the workers, and the records that cross between their threads, lie in memory. Offsets in
// words hold on every processor.

#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <type_traits>

#include <gtest/gtest.h>

#include "support/layout.h"
#include "worker/abstract_worker.h"
#include "worker/buffer_info.h"
#include "worker/message_queue.h"

namespace vemk {
namespace {

constexpr std::size_t word = sizeof(void *);

class bare_worker : public abstract_worker {
public:
  bare_worker() : abstract_worker(nullptr, "bare") {}

  bool init() override { return false; }
  bool run_once() override { return false; }
  void deinit() override {}
  bool keep_running(const bool *) override { return false; }

  virtual void first_of_its_own() {}

  const void *first_member() const { return &started; }

  bool is_in_order() const {
    return lie_in_order(&started, &running, &thread, &run_flag, &name, &timers, &step_pause_us,
                        &restart_pause_us);
  }
};

/// A pointer to a virtual member begins with the offset of its slot; a mark may be added to that.
template<typename member_t>
std::size_t slot_of(member_t member) {
  std::size_t offset = 0;
  std::memcpy(&offset, &member, sizeof offset);
  return offset / word;
}

// After the table's pointer: started, running, thread, run_flag, name, timers and the two pauses.
TEST(WorkerLayoutTest, MembersFollowOneAnotherInTheirOrder) {
  const bare_worker worker;
  EXPECT_TRUE(worker.is_in_order());
  EXPECT_EQ(offset_in(worker, worker.first_member()), word);
}

// Slots: init 0, run_once 1, deinit 2, keep_running 3, destructors 4 and 5, the step's pause 6.
TEST(WorkerLayoutTest, VirtualOperationsHaveTheSlotsOfTheirOrder) {
  EXPECT_EQ(slot_of(&abstract_worker::init), 0u);
  EXPECT_EQ(slot_of(&abstract_worker::run_once), 1u);
  EXPECT_EQ(slot_of(&abstract_worker::deinit), 2u);
  EXPECT_EQ(slot_of(&abstract_worker::keep_running), 3u);
  EXPECT_EQ(slot_of(&abstract_worker::pause_before_next_step), 6u);
  EXPECT_EQ(slot_of(&bare_worker::first_of_its_own), 7u);
}

// data lies at 0, length with 32 bits at one word, and nothing else follows.
TEST(BufferLayoutTest, IsTwoWordsDataThenLength) {
  EXPECT_EQ(sizeof(buffer_info_t), 2 * word);
  EXPECT_EQ(offsetof(buffer_info_t, data), 0u);
  EXPECT_EQ(offsetof(buffer_info_t, length), word);
  EXPECT_EQ(sizeof(buffer_info_t::length), 4u);
}

// The three lie behind one another in this order, then the count of bytes, with nothing else.
TEST(QueueLayoutTest, IsNotifyThenItemsThenLockThenBytes) {
  const message_queue_t queue;
  EXPECT_EQ(offset_in(queue, &queue.notify), 0u);
  EXPECT_EQ(offset_in(queue, &queue.items), sizeof queue.notify);
  EXPECT_EQ(offset_in(queue, &queue.lock), sizeof queue.notify + sizeof queue.items);
  const std::size_t behind_lock = sizeof queue.notify + sizeof queue.items + sizeof queue.lock;
  EXPECT_EQ(offset_in(queue, &queue.bytes), behind_lock);
  EXPECT_EQ(sizeof queue, behind_lock + sizeof queue.bytes);
}

// It is a std::deque of shared pointers, which gives its blocks back as they empty.
TEST(QueueLayoutTest, ItemsAreADoubleEndedQueue) {
  EXPECT_TRUE((std::is_same<decltype(message_queue_t::items),
                            std::deque<std::shared_ptr<buffer_info_t>>>::value));
}

} // namespace
} // namespace vemk
