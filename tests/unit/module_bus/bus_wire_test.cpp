#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "module_bus/bus_wire.h"

namespace vemk {
namespace {

using ::testing::ElementsAre;

constexpr std::uint32_t a_session = 77;
constexpr std::uint32_t another_session = 78;

std::string frame(const frame_header_t &header, const std::string &piece = "") {
  std::string bytes(frame_header_bytes, '\0');
  write_frame_header(header, bytes.data());
  return bytes + piece;
}

std::string piece(std::uint64_t number, std::uint32_t total, std::uint32_t offset,
                  const std::string &bytes, std::uint32_t session = a_session) {
  return frame({frame_kind::piece, session, number, total, offset}, bytes);
}

std::string hello(std::uint64_t next_number, std::uint32_t session = a_session) {
  return frame({frame_kind::hello, session, next_number, 0, 0});
}

// 21 bytes: kind, then 4, 8, 4 and 4 bytes with the lowest first, then the piece.
TEST(FrameHeaderTest, IsWrittenLittleEndianWithoutPadding) {
  const std::string bytes =
      frame({frame_kind::piece, 0x01020304, 0x1112131415161718, 0x00000005, 0x00000002}, "abc");
  const std::string expected("P\x04\x03\x02\x01\x18\x17\x16\x15\x14\x13\x12\x11"
                             "\x05\x00\x00\x00\x02\x00\x00\x00"
                             "abc",
                             24);
  EXPECT_EQ(bytes, expected);
}

// Each of the five fields comes back with its high bit set.
TEST(FrameHeaderTest, IsReadAsItWasWritten) {
  const auto header = read_frame_header(piece(0xfedcba9876543210, 0xffff, 0x8001, "x", 0xdeadbeef));
  ASSERT_TRUE(header);
  EXPECT_EQ(header->kind, frame_kind::piece);
  EXPECT_EQ(header->session, 0xdeadbeefU);
  EXPECT_EQ(header->number, 0xfedcba9876543210U);
  EXPECT_EQ(header->total_bytes, 0xffffU);
  EXPECT_EQ(header->offset_bytes, 0x8001U);
}

// Cut short, unknown kind, beyond the message's end, a wrapping sum, too long, hello with payload.
TEST(FrameHeaderTest, RefusesMalformedFrames) {
  const std::string good = piece(1, 3, 0, "abc");
  ASSERT_TRUE(read_frame_header(good));
  for (std::size_t length = 0; length <= frame_header_bytes; ++length)
    EXPECT_FALSE(read_frame_header(good.substr(0, length))) << length << " bytes";

  std::string unknown_kind = good;
  unknown_kind.front() = 'X';
  EXPECT_FALSE(read_frame_header(unknown_kind));
  EXPECT_FALSE(read_frame_header(piece(1, 2, 0, "abc"))) << "longer than its message";
  EXPECT_FALSE(read_frame_header(piece(1, 3, 1, "abc"))) << "beyond the end";
  EXPECT_FALSE(read_frame_header(piece(1, 3, 4, "a"))) << "offset beyond the end";
  EXPECT_FALSE(read_frame_header(piece(1, 3, 0xffffffff, "ab"))) << "sum wraps";
  EXPECT_FALSE(read_frame_header(piece(1, max_payload_bytes + 1, 0, "a"))) << "message too long";
  EXPECT_FALSE(read_frame_header(piece(1, 5000, 0, std::string(max_piece_bytes + 1, 'a'))));
  EXPECT_FALSE(read_frame_header(hello(1) + "a")) << "a hello with a payload";
}

class MessageReassemblerTest : public ::testing::Test {
protected:
  /// What each frame brings: its message or "-", and "+N" for N messages that are lost with it.
  std::vector<std::string> outcomes(const std::vector<std::string> &frames) {
    std::vector<std::string> result;
    for (const std::string &bytes : frames) {
      const std::uint64_t lost_before = reassembler.lost();
      result.push_back(reassembler.add(bytes).value_or("-"));
      if (reassembler.lost() != lost_before)
        result.back() += "+" + std::to_string(reassembler.lost() - lost_before);
    }
    return result;
  }

  message_reassembler reassembler;
};

// Three pieces in order give the message with the third; nothing is counted as lost.
TEST_F(MessageReassemblerTest, ReturnsAMessageWithItsLastPiece) {
  EXPECT_THAT(outcomes({piece(0, 3, 0, "abc"), piece(1, 5, 0, "ab"), piece(1, 5, 2, "cd"),
                        piece(1, 5, 4, "e")}),
              ElementsAre("abc", "-", "-", "abcde"));
}

// Garbage subscribes to nothing, a hello does.
TEST_F(MessageReassemblerTest, IsSubscribedFromTheFirstValidFrameOn) {
  EXPECT_FALSE(reassembler.subscribed());
  reassembler.add("garbage");
  EXPECT_FALSE(reassembler.subscribed());
  reassembler.add(hello(12));
  EXPECT_TRUE(reassembler.subscribed());
}

// Joining between messages or in the middle of one loses none of those before.
TEST_F(MessageReassemblerTest, DoesNotCountWhatWasSentBeforeItCame) {
  EXPECT_THAT(outcomes({hello(1000), piece(1000, 1, 0, "x")}), ElementsAre("-", "x"));
  reassembler = message_reassembler();
  EXPECT_THAT(outcomes({piece(1000, 4, 2, "cd"), piece(1001, 1, 0, "x")}), ElementsAre("-", "x"));
}

// Number 4 after number 0 counts 3 lost messages.
TEST_F(MessageReassemblerTest, CountsWholeMessagesThatAreMissing) {
  EXPECT_THAT(outcomes({piece(0, 1, 0, "a"), piece(4, 1, 0, "b")}), ElementsAre("a", "b+3"));
}

// A gap of one piece loses one message; the next is returned.
TEST_F(MessageReassemblerTest, DropsAMessageWithAMissingPieceAndGoesOnWithTheNext) {
  EXPECT_THAT(outcomes({piece(0, 6, 0, "ab"), piece(0, 6, 4, "ef"), piece(1, 2, 0, "ok")}),
              ElementsAre("-", "-+1", "ok"));
}

// A message without its end counts once when the next begins.
TEST_F(MessageReassemblerTest, CountsAMessageThatBrokeOffOnce) {
  EXPECT_THAT(outcomes({piece(0, 6, 0, "ab"), piece(1, 2, 0, "ok")}), ElementsAre("-", "ok+1"));
}

// Number 0 broken off, 1 missing, 2 without its start: 3 lost, number 3 is returned.
TEST_F(MessageReassemblerTest, ComesBackInTheMiddleOfALaterMessage) {
  EXPECT_THAT(outcomes({piece(0, 6, 0, "ab"), piece(2, 6, 2, "cd"), piece(2, 6, 4, "ef"),
                        piece(3, 2, 0, "ok")}),
              ElementsAre("-", "-+3", "-", "ok"));
}

// A hello with the number that is due changes nothing and counts nothing.
TEST_F(MessageReassemblerTest, AHelloForAnotherListenerChangesNothing) {
  EXPECT_THAT(outcomes({piece(0, 1, 0, "a"), hello(1), piece(1, 1, 0, "b")}),
              ElementsAre("a", "-", "b"));
}

// A hello with number 3 after message 0 counts the messages 1 and 2.
TEST_F(MessageReassemblerTest, AHelloTellsOfLossesBeforeIt) {
  EXPECT_THAT(outcomes({piece(0, 1, 0, "a"), hello(3)}), ElementsAre("a", "-+2"));
}

// Another session begins with number 0 and nothing lost, after number 500 in the old one.
TEST_F(MessageReassemblerTest, StartsAnewWhenTheModuleHasJoinedAgain) {
  EXPECT_THAT(outcomes({piece(500, 1, 0, "a"), hello(0, another_session),
                        piece(0, 1, 0, "b", another_session)}),
              ElementsAre("a", "-", "b"));
}

// A new session's pieces never complete a message of the old one, which counts as lost.
TEST_F(MessageReassemblerTest, LosesTheMessageThatTheEndOfASessionCutShort) {
  EXPECT_THAT(outcomes({piece(0, 4, 0, "ab"), piece(0, 4, 2, "cd", another_session),
                        piece(1, 2, 0, "ok", another_session)}),
              ElementsAre("-", "-+1", "ok"));
}

// Empty, garbage and too long frames between two pieces do not disturb the message.
TEST_F(MessageReassemblerTest, IgnoresMalformedFramesInTheMiddleOfAMessage) {
  EXPECT_THAT(
      outcomes({piece(0, 4, 0, "ab"), "", "Pgarbage", piece(0, 4, 2, "cde"), piece(0, 4, 2, "cd")}),
      ElementsAre("-", "-", "-", "-", "abcd"));
}

} // namespace
} // namespace vemk
