// How the records that cross between the threads lie in memory. Offsets in words hold on every
// processor.

#include <cstddef>
#include <cstdint>

#include <gtest/gtest.h>

#include "worker/buffer_info.h"
#include "worker/message_queue.h"

namespace vemk {
namespace {

constexpr std::size_t word = sizeof(void *);

TEST(BufferLayoutTest, IsTwoWordsDataThenLength) {
  EXPECT_EQ(sizeof(buffer_info_t), 2 * word);
  EXPECT_EQ(offsetof(buffer_info_t, data), 0u);
  EXPECT_EQ(offsetof(buffer_info_t, length), word);
  EXPECT_EQ(sizeof(buffer_info_t::length), 4u);
}

TEST(QueueLayoutTest, IsNotifyThenItemsThenLock) {
  const message_queue_t queue;
  const auto offset_of = [&](const void *member) {
    return static_cast<std::size_t>(static_cast<const char *>(member) -
                                    reinterpret_cast<const char *>(&queue));
  };
  EXPECT_EQ(offset_of(&queue.notify), 0u);
  EXPECT_EQ(offset_of(&queue.items), sizeof queue.notify);
  EXPECT_EQ(offset_of(&queue.lock), sizeof queue.notify + sizeof queue.items);
  EXPECT_EQ(sizeof queue, sizeof queue.notify + sizeof queue.items + sizeof queue.lock);
}

} // namespace
} // namespace vemk
