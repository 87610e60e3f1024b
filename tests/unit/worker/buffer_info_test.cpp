#include "worker/buffer_info.h"

#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_memory.h"
#include "support/buffers.h"
#include "support/logging_test.h"

namespace vemk {

namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class BufferInfoTest : public LoggingTest {
protected:
  BufferInfoTest() : LoggingTest(0x0F) { fake_memory::reset(); }

  static std::uint8_t *append(buffer_info_t &buffer, const std::string &bytes) {
    return buffer.append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
  }

  static std::uint8_t *append_without_memory(buffer_info_t &buffer, const std::string &bytes) {
    const fake_memory::shortage shortage;
    return append(buffer, bytes);
  }

  static void expect_no_data(const buffer_info_t &buffer) {
    EXPECT_EQ(nullptr, buffer.data);
    EXPECT_EQ(0u, buffer.length);
  }

  static void expect_empty_text(const buffer_info_t &buffer) {
    ASSERT_NE(nullptr, buffer.data);
    EXPECT_EQ(0, buffer.data[0]);
    EXPECT_EQ(0u, buffer.length);
  }
};

} // namespace

// data is null, length 0, and nothing was allocated.
TEST_F(BufferInfoTest, NewBufferIsEmpty) {
  const buffer_info_t buffer;
  expect_no_data(buffer);
  EXPECT_THAT(fake_memory::realloc_sizes(), IsEmpty());
  EXPECT_THAT(fake_memory::calloc_sizes(), IsEmpty());
}

// It copies the bytes behind those before and a NUL behind them, and returns data.
TEST_F(BufferInfoTest, AppendGoesOnAtTheEndAndEndsTheBytesWithANul) {
  buffer_info_t buffer;
  std::string whole;
  // NUL and high bytes are ordinary bytes.
  for (std::string source : {"abc"s, "d"s, "\0a\xFF\0\x80\0"s}) {
    whole += source;
    EXPECT_EQ(append(buffer, source), buffer.data);
    source.assign(source.size(), 'x');
    EXPECT_EQ(whole, text_of(buffer));
    EXPECT_EQ(whole.size(), buffer.length);
    EXPECT_EQ(0, buffer.data[whole.size()]);
  }
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

// On an empty buffer it asks realloc for 1 byte, a NUL; "abc" stays as it is; null is a source.
TEST_F(BufferInfoTest, AppendOfNothingMakesAnEmptyBufferOneZeroByte) {
  for (const char *nothing : {"", static_cast<const char *>(nullptr)}) {
    fake_memory::reset();
    buffer_info_t buffer;
    EXPECT_EQ(buffer.append(nothing, 0), buffer.data);
    expect_empty_text(buffer);
    EXPECT_THAT(fake_memory::realloc_sizes(), ElementsAre(1));
    append(buffer, "abc");
    EXPECT_EQ(buffer.append(nothing, 0), buffer.data);
    EXPECT_EQ("abc", text_of(buffer));
    EXPECT_EQ(0, buffer.data[3]);
  }
}

// It returns null and logs "|PID|buffer-info> append:95 Can't alloc memory\n".
TEST_F(BufferInfoTest, AppendWithoutMemoryLeavesTheBufferAsItWas) {
  buffer_info_t buffer;
  append(buffer, "abc");
  const std::uint8_t *const before = buffer.data;
  EXPECT_EQ(nullptr, append_without_memory(buffer, "def"));
  EXPECT_EQ(before, buffer.data);
  EXPECT_EQ("abc", text_of(buffer));
  EXPECT_EQ(0, buffer.data[3]);
  EXPECT_THAT(fake_log::lines(), ElementsAre(no_memory_line()));
  append(buffer, "ghi");
  EXPECT_EQ("abcghi", text_of(buffer));
}

// data stays null and length 0; each of two tries, one of them of 0 bytes, logs its line.
TEST_F(BufferInfoTest, AppendWithoutMemoryToAnEmptyBufferLeavesItEmpty) {
  buffer_info_t buffer;
  EXPECT_EQ(nullptr, append_without_memory(buffer, ""));
  EXPECT_EQ(nullptr, append_without_memory(buffer, "a"));
  expect_no_data(buffer);
  EXPECT_THAT(fake_log::lines(), ElementsAre(no_memory_line(), no_memory_line()));
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
    EXPECT_THAT(fake_log::lines(), ElementsAre(no_memory_line()));
    buffer.length = 3;
  }
}

// 4294967294 bytes ask realloc for 4294967295.
TEST_F(BufferInfoTest, LargestLengthThatFitsIsAskedFor) {
  const fake_memory::shortage shortage;
  EXPECT_EQ(nullptr, buffer_info_t().append("x", 4294967294u));
  EXPECT_THAT(fake_memory::realloc_sizes(), ElementsAre(4294967295u));
}

// With mask 0x01 the line comes, with every other bit it does not.
TEST_F(BufferInfoTest, FailureIsOfTheErrorCategory) {
  for (const std::uint32_t mask : {0x01u, 0xFFFFFFFEu}) {
    fake_log::lines.clear();
    g_log_level = mask;
    buffer_info_t buffer;
    append_without_memory(buffer, "a");
    EXPECT_EQ(mask == 0x01u ? 1u : 0u, fake_log::lines().size()) << mask;
  }
}

// "a\0\xFF" is one calloc of 4 bytes; what is appended to it and its source's end stay apart.
TEST_F(BufferInfoTest, CopyHasItsOwnBytes) {
  auto source = buffer_of("a\0\xFF"s);
  buffer_info_t copy(*source);
  EXPECT_NE(source->data, copy.data);
  EXPECT_EQ("a\0\xFF"s, text_of(copy));
  EXPECT_EQ(0, copy.data[3]);
  EXPECT_THAT(fake_memory::calloc_sizes(), ElementsAre(4));

  append(copy, "more");
  EXPECT_EQ("a\0\xFF"s, text_of(*source));
  source.reset();
  EXPECT_EQ("a\0\xFFmore"s, text_of(copy));
}

// The copy of "a" still holds it after its source is destroyed.
TEST_F(BufferInfoTest, CopyOfOneByteOutlivesItsSource) {
  auto source = buffer_of("a");
  const buffer_info_t copy(*source);
  source.reset();
  EXPECT_EQ("a", text_of(copy));
}

// The block of "abc" goes to free once, with the buffer and not before.
TEST_F(BufferInfoTest, DestructionReleasesTheBytes) {
  auto buffer = buffer_of("abc");
  fake_memory::watch(buffer->data);
  buffer->dump();
  EXPECT_EQ(0, fake_memory::frees_of_watched());
  buffer.reset();
  EXPECT_EQ(1, fake_memory::frees_of_watched());
}

// It allocates 1 zero byte, and length is 0.
TEST_F(BufferInfoTest, CopyOfAnEmptyBufferIsAnEmptyText) {
  const buffer_info_t source;
  const buffer_info_t copy(source);
  expect_empty_text(copy);
  EXPECT_THAT(fake_memory::calloc_sizes(), ElementsAre(1));
}

// 3, 2^31 and 2^32 - 2 bytes without memory give no data and no line; 2^32 - 1 are not asked for.
// Where sizes have 32 bits, 2^32 - 1 bytes and their NUL once wrapped round to a block of 0 bytes.
TEST_F(BufferInfoTest, CopyWithoutMemoryIsEmptyAndSilent) {
  buffer_info_t source;
  append(source, "abc");
  {
    const fake_memory::shortage shortage;
    for (const std::uint32_t length : {0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu, 3u}) {
      source.length = length;
      const buffer_info_t copy(source);
      expect_no_data(copy);
    }
  }
  EXPECT_THAT(fake_memory::calloc_sizes(), ElementsAre(0x80000001u, 0xFFFFFFFFu, 4u));
  EXPECT_EQ("abc", text_of(source));
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// "buffer-info" takes g_log_level with a new buffer and with a copy, and at no append.
TEST_F(BufferInfoTest, LevelIsCopiedAtEveryConstruction) {
  g_log_level = 0;
  buffer_info_t buffer;
  g_log_level = 0x01;
  append_without_memory(buffer, "a");
  EXPECT_THAT(fake_log::lines(), IsEmpty());

  const buffer_info_t other;
  append_without_memory(buffer, "a");
  EXPECT_EQ(1u, fake_log::lines().size());

  g_log_level = 0;
  const buffer_info_t copy(other);
  append_without_memory(buffer, "a");
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
