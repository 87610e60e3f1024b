#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "module_bus/frame_watch.h"

namespace vemk {
namespace {

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

std::string greeting(char version = 3) {
  std::string bytes = "\xFF" + std::string(8, '\0') + "\x7F";
  bytes += version;
  bytes.resize(64, '\0');
  return bytes;
}

std::string header(int flags, std::uint64_t size) {
  std::string bytes(1, static_cast<char>(flags));
  for (int shift = (flags & 2) != 0 ? 56 : 0; shift >= 0; shift -= 8)
    bytes += static_cast<char>(size >> shift & 0xFF);
  return bytes;
}

std::string frame(int flags, const std::string &body) {
  return header(flags, body.size()) + body;
}

/// How many of the bytes pass when they come in pieces of this size.
std::size_t passed(const frame_limits_t &limits, const std::string &bytes, std::size_t piece) {
  frame_watch watch(limits);
  std::size_t done = 0;
  while (done < bytes.size()) {
    const std::string next = bytes.substr(done, piece);
    const std::size_t taken = watch.pass(next);
    done += taken;
    if (taken < next.size())
      break;
  }
  return done;
}

/// However they come, the bytes before the end of `good` pass and none of `bad`.
void expect_passed(const std::string &good, const std::string &bad,
                   const frame_limits_t &limits = {1000, unlimited}) {
  for (const std::size_t piece : {1U, 2U, 3U, 7U, 64U, 65U, 66U, 1000U, 100000U})
    EXPECT_EQ(passed(limits, good + bad, piece), good.size()) << "in pieces of " << piece;
}

// A greeting, a command, and empty, short and long frames pass in pieces of any size.
TEST(FrameWatchTest, FramesOfOnePartPass) {
  expect_passed(greeting() + frame(4, "\5READY") + frame(0, "") + frame(0, std::string(255, 'x')) +
                    frame(2, std::string(1000, 'y')) + frame(2, "") + frame(6, "command") +
                    frame(0, "\x01\xFF\x7F"),
                "");
}

// A frame that says that more parts follow does not pass; the frames before it do.
TEST(FrameWatchTest, FirstOfSeveralPartsDoesNotPass) {
  for (const int flags : {1, 3, 5, 7})
    expect_passed(greeting() + frame(0, "before"), frame(flags, "part") + frame(0, "last"));
}

// Each flag beyond the lowest three ends it.
TEST(FrameWatchTest, UnknownFlagsDoNotPass) {
  for (const int flags : {8, 16, 32, 64, 128, 255 - 1})
    expect_passed(greeting(), frame(flags, "x"));
}

// With a limit of 1000 a size of 1000 passes; 1001, 2^32 and 2^64 - 1 end before their last byte.
TEST(FrameWatchTest, FrameBeyondTheLimitDoesNotPass) {
  expect_passed(greeting() + frame(2, std::string(1000, 'x')), "");
  for (const std::uint64_t size : {std::uint64_t{1001}, std::uint64_t{1} << 32, unlimited}) {
    const std::string bytes = header(2, size);
    expect_passed(greeting() + bytes.substr(0, 8), bytes.substr(8) + std::string(2000, 'x'));
  }
  const std::string bytes = header(0, 11);
  expect_passed(greeting() + bytes.substr(0, 1), bytes.substr(1), {10, unlimited});
}

// Version 2, a request of HTTP and the older greeting without a signature end at their first fault.
TEST(FrameWatchTest, OtherProtocolsDoNotPass) {
  expect_passed(greeting().substr(0, 10), greeting(2).substr(10));
  expect_passed("", "GET / HTTP/1.1\r\n\r\n");
  expect_passed("", std::string("\x01\0", 2));
  expect_passed(greeting().substr(0, 9), std::string(55, '\0'));
}

// Of a connection that may have 100 bytes the first 100 pass, and none later.
TEST(FrameWatchTest, ConnectionHasItsBytes) {
  const std::string bytes = greeting() + frame(0, std::string(200, 'x'));
  expect_passed(bytes.substr(0, 100), bytes.substr(100), {1000, 100});
  frame_watch watch({1000, 100});
  EXPECT_EQ(watch.pass(bytes), 100U);
  EXPECT_EQ(watch.pass("x"), 0U);
}

} // namespace
} // namespace vemk
