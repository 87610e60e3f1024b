#include "worker/buffer_info.h"

#include <memory>
#include <string>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "fakes/fake_memory.h"
#include "log/log_module.h"

namespace {

const void *watched_block = nullptr;
int frees_of_watched_block = 0;

} // namespace

extern "C" {

void __real_free(void *block);

void __wrap_free(void *block) {
  if (block != nullptr && block == watched_block)
    ++frees_of_watched_block;
  __real_free(block);
}
}

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class BufferInfoTest : public testing::Test {
protected:
  BufferInfoTest() {
    fake_log::clear();
    fake_memory::reset();
    g_log_level = 0x0F;
  }

  ~BufferInfoTest() override {
    fake_memory::reset();
    g_log_level = 0;
  }

  static std::uint8_t *append(buffer_info_t &buffer, const std::string &bytes) {
    return buffer.append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  }

  static std::string bytes_of(const buffer_info_t &buffer) {
    return std::string(reinterpret_cast<const char *>(buffer.data), buffer.length);
  }

  static std::string allocation_failure() {
    return "|" + std::to_string(getpid()) + "|buffer-info> append:95 Can't alloc memory\n";
  }
};

} // namespace

// data is null, length 0, and nothing was allocated.
TEST_F(BufferInfoTest, NewBufferIsEmpty) {
  const buffer_info_t buffer;
  EXPECT_EQ(nullptr, buffer.data);
  EXPECT_EQ(0u, buffer.length);
  EXPECT_THAT(fake_memory::realloc_sizes(), IsEmpty());
  EXPECT_THAT(fake_memory::calloc_sizes(), IsEmpty());
}

// It returns data, which holds "abc" and a NUL after the source has changed.
TEST_F(BufferInfoTest, AppendCopiesTheBytesAndEndsThemWithANul) {
  buffer_info_t buffer;
  std::string source = "abc";
  EXPECT_EQ(append(buffer, source), buffer.data);
  ASSERT_NE(nullptr, buffer.data);
  source = "xyz";
  EXPECT_EQ("abc", bytes_of(buffer));
  EXPECT_EQ(3u, buffer.length);
  EXPECT_EQ(0, buffer.data[3]);
}

// "abc", "de" and "f" make "abcdef" with a NUL behind it.
TEST_F(BufferInfoTest, AppendGoesOnAtTheEnd) {
  buffer_info_t buffer;
  append(buffer, "abc");
  EXPECT_EQ(append(buffer, "de"), buffer.data);
  append(buffer, "f");
  EXPECT_EQ("abcdef", bytes_of(buffer));
  EXPECT_EQ(0, buffer.data[6]);
}

// 3, 2 and 4096 bytes ask realloc for 4, 6 and 4102: no reserve.
TEST_F(BufferInfoTest, EveryAppendAllocatesExactlyTheBytesAndTheirNul) {
  buffer_info_t buffer;
  append(buffer, "abc");
  append(buffer, "de");
  append(buffer, std::string(4096, 'x'));
  EXPECT_THAT(fake_memory::realloc_sizes(), ElementsAre(4, 6, 4102));
  EXPECT_THAT(fake_memory::calloc_sizes(), IsEmpty());
}

// It asks realloc for 1 byte, returns it, and length stays 0.
TEST_F(BufferInfoTest, AppendOfNothingToAnEmptyBufferMakesOneZeroByte) {
  buffer_info_t buffer;
  EXPECT_EQ(buffer.append("", 0), buffer.data);
  ASSERT_NE(nullptr, buffer.data);
  EXPECT_EQ(0, buffer.data[0]);
  EXPECT_EQ(0u, buffer.length);
  EXPECT_THAT(fake_memory::realloc_sizes(), ElementsAre(1));
}

// append(nullptr, 0) succeeds on an empty buffer and leaves "abc" as it is.
TEST_F(BufferInfoTest, AppendOfNothingTakesANullSource) {
  buffer_info_t buffer;
  EXPECT_NE(nullptr, buffer.append(nullptr, 0));
  append(buffer, "abc");
  EXPECT_EQ(buffer.append(nullptr, 0), buffer.data);
  EXPECT_EQ("abc", bytes_of(buffer));
  EXPECT_EQ(0, buffer.data[3]);
}

// Bytes 0x00, 0x80 and 0xFF are kept and counted, behind one another too.
TEST_F(BufferInfoTest, NulAndHighBytesAreOrdinaryBytes) {
  const std::string bytes("\0a\xFF\0\x80\0", 6);
  buffer_info_t buffer;
  append(buffer, bytes);
  append(buffer, bytes);
  EXPECT_EQ(bytes + bytes, bytes_of(buffer));
  EXPECT_EQ(0, buffer.data[12]);
}

// It returns null and logs "|PID|buffer-info> append:95 Can't alloc memory\n".
TEST_F(BufferInfoTest, AppendWithoutMemoryLeavesTheBufferAsItWas) {
  buffer_info_t buffer;
  append(buffer, "abc");
  const std::uint8_t *const before = buffer.data;
  fake_memory::refuse_realloc();
  EXPECT_EQ(nullptr, append(buffer, "def"));
  EXPECT_EQ(before, buffer.data);
  EXPECT_EQ("abc", bytes_of(buffer));
  EXPECT_EQ(0, buffer.data[3]);
  EXPECT_THAT(fake_log::lines(), ElementsAre(allocation_failure()));

  fake_memory::reset();
  append(buffer, "ghi");
  EXPECT_EQ("abcghi", bytes_of(buffer));
}

// data stays null and length 0; each of two tries, one of them of 0 bytes, logs its line.
TEST_F(BufferInfoTest, AppendWithoutMemoryToAnEmptyBufferLeavesItEmpty) {
  buffer_info_t buffer;
  fake_memory::refuse_realloc();
  EXPECT_EQ(nullptr, append(buffer, ""));
  EXPECT_EQ(nullptr, append(buffer, "a"));
  EXPECT_EQ(nullptr, buffer.data);
  EXPECT_EQ(0u, buffer.length);
  EXPECT_THAT(fake_log::lines(), ElementsAre(allocation_failure(), allocation_failure()));
}

// From length + count = 2^32 - 1 on: no memory asked for, null, the buffer unchanged, the line.
// A length that 32 bits cannot hold would wrap round to a small allocation.
TEST_F(BufferInfoTest, AppendNearTheLimitOf32BitsFailsAsAFailedAllocationDoes) {
  const struct {
    std::uint32_t length;
    std::uint32_t count;
  } cases[] = {{4294967294u, 1}, {4294967294u, 4294967295u}, {4294967295u, 0}, {4294967295u, 1},
               {3, 4294967292u}, {3, 4294967295u},           {0, 4294967295u}};
  for (const auto &limit : cases) {
    fake_log::clear();
    fake_memory::reset();
    buffer_info_t buffer;
    append(buffer, "abc");
    const std::uint8_t *const before = buffer.data;
    buffer.length = limit.length;
    EXPECT_EQ(nullptr, buffer.append("x", limit.count)) << limit.length << '+' << limit.count;
    EXPECT_EQ(before, buffer.data);
    EXPECT_EQ(limit.length, buffer.length);
    EXPECT_STREQ("abc", reinterpret_cast<const char *>(buffer.data));
    EXPECT_THAT(fake_memory::realloc_sizes(), ElementsAre(4));
    EXPECT_THAT(fake_log::lines(), ElementsAre(allocation_failure()));
    buffer.length = 3;
  }
}

// 4294967294 bytes ask realloc for 4294967295.
TEST_F(BufferInfoTest, LargestLengthThatFitsIsAskedFor) {
  fake_memory::refuse_realloc();
  buffer_info_t buffer;
  EXPECT_EQ(nullptr, buffer.append("x", 4294967294u));
  EXPECT_THAT(fake_memory::realloc_sizes(), ElementsAre(4294967295u));
}

// With mask 0x01 the line comes, with every other bit it does not.
TEST_F(BufferInfoTest, FailureIsOfTheErrorCategory) {
  for (const std::uint32_t mask : {0x01u, 0xFFFFFFFEu}) {
    fake_log::clear();
    g_log_level = mask;
    buffer_info_t buffer;
    fake_memory::refuse_realloc();
    append(buffer, "a");
    fake_memory::reset();
    EXPECT_EQ(mask == 0x01u ? 1u : 0u, fake_log::lines().size()) << mask;
  }
}

// "a\0\xFF" is copied into one calloc of 4 bytes, and later appends stay apart.
TEST_F(BufferInfoTest, CopyHasItsOwnBytes) {
  const std::string bytes("a\0\xFF", 3);
  buffer_info_t source;
  append(source, bytes);
  buffer_info_t copy(source);
  EXPECT_NE(source.data, copy.data);
  EXPECT_EQ(bytes, bytes_of(copy));
  EXPECT_EQ(0, copy.data[3]);
  EXPECT_THAT(fake_memory::calloc_sizes(), ElementsAre(4));

  append(copy, "more");
  EXPECT_EQ(bytes, bytes_of(source));
  EXPECT_EQ(bytes + "more", bytes_of(copy));
}

// The copy still holds "abc" after the source is destroyed.
TEST_F(BufferInfoTest, CopyOutlivesItsSource) {
  auto source = std::make_unique<buffer_info_t>();
  append(*source, "abc");
  const buffer_info_t copy(*source);
  source.reset();
  EXPECT_EQ("abc", bytes_of(copy));
}

// The block of "abc" goes to free once, with the buffer and not before.
TEST_F(BufferInfoTest, DestructionReleasesTheBytes) {
  auto buffer = std::make_unique<buffer_info_t>();
  append(*buffer, "abc");
  watched_block = buffer->data;
  frees_of_watched_block = 0;
  buffer->dump();
  EXPECT_EQ(0, frees_of_watched_block);
  buffer.reset();
  EXPECT_EQ(1, frees_of_watched_block);
  watched_block = nullptr;
}

// It allocates 1 zero byte, and length is 0.
TEST_F(BufferInfoTest, CopyOfAnEmptyBufferIsAnEmptyText) {
  const buffer_info_t source;
  const buffer_info_t copy(source);
  ASSERT_NE(nullptr, copy.data);
  EXPECT_EQ(0, copy.data[0]);
  EXPECT_EQ(0u, copy.length);
  EXPECT_THAT(fake_memory::calloc_sizes(), ElementsAre(1));
}

// data is null, length 0, and no line is logged.
TEST_F(BufferInfoTest, CopyWithoutMemoryIsEmptyAndSilent) {
  buffer_info_t source;
  append(source, "abc");
  fake_memory::refuse_calloc();
  const buffer_info_t copy(source);
  EXPECT_EQ(nullptr, copy.data);
  EXPECT_EQ(0u, copy.length);
  EXPECT_EQ("abc", bytes_of(source));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// Where memory lacks, 2^31 and 2^32 - 2 bytes give no data; 2^32 - 1 bytes are not asked for.
// Where sizes have 32 bits, 2^32 - 1 bytes and their NUL once wrapped round to a block of 0 bytes.
TEST_F(BufferInfoTest, CopyOfALengthThatHasNoRoomForItsNulIsEmpty) {
  buffer_info_t source;
  append(source, "abc");
  fake_memory::refuse_calloc();
  for (const std::uint32_t length : {0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    source.length = length;
    const buffer_info_t copy(source);
    EXPECT_EQ(nullptr, copy.data);
    EXPECT_EQ(0u, copy.length);
  }
  source.length = 3;
  EXPECT_THAT(fake_memory::calloc_sizes(), ElementsAre(0x80000001u, 0xFFFFFFFFu));
}

// "buffer-info" takes g_log_level with a new buffer and with a copy, and at no append.
TEST_F(BufferInfoTest, LevelIsCopiedAtEveryConstruction) {
  g_log_level = 0;
  buffer_info_t buffer;
  g_log_level = 0x01;
  fake_memory::refuse_realloc();
  append(buffer, "a");
  EXPECT_THAT(fake_log::lines(), IsEmpty());

  const buffer_info_t other;
  append(buffer, "a");
  EXPECT_EQ(1u, fake_log::lines().size());

  g_log_level = 0;
  const buffer_info_t copy(other);
  append(buffer, "a");
  EXPECT_EQ(1u, fake_log::lines().size());
}

// Two threads dump 400 buffers each, and the log has 800 lines.
// Each worker builds buffers of its own while the other one logs about its.
TEST_F(BufferInfoTest, TwoThreadsBuildAndDumpBuffersOfTheirOwn) {
  const auto work = [] {
    for (int i = 0; i < 200; ++i) {
      buffer_info_t buffer;
      append(buffer, "message");
      buffer.dump();
      const buffer_info_t copy(buffer);
      copy.dump();
    }
  };
  std::thread other(work);
  work();
  other.join();
  EXPECT_EQ(800u, fake_log::lines().size());
}

} // namespace vemk
