#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_memory.h"
#include "support/buffers.h"
#include "support/logging_test.h"

namespace vemk {

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string heading = "Buffer info dump:\n";
const std::string skip_notice = "\t....part of message are skipped...\n";

std::string hex(const std::string &bytes) {
  std::string text;
  for (const char byte : bytes) {
    char column[16];
    snprintf(column, sizeof column, "%02X ", static_cast<unsigned>(static_cast<signed char>(byte)));
    text += column;
  }
  return text;
}

/// The hex columns of up to 32 bytes and the gap behind them.
std::string columns_of(const std::string &bytes) {
  return "\t" + hex(bytes) + std::string((32 - bytes.size()) * 3, ' ') + "    ";
}

std::string line_of(const std::string &bytes) {
  return columns_of(bytes) + bytes + "\n";
}

/// What the log shows of bytes that are listed in full and hold no "%" and no NUL.
std::string plain_listing(const std::string &bytes) {
  std::string text = heading;
  for (std::size_t at = 0; at < bytes.size(); at += 32)
    text += line_of(bytes.substr(at, 32));
  return text;
}

/// `count` lines of 32 bytes, each of which tells its index.
std::string numbered_lines(int count) {
  std::string bytes;
  for (int line = 0; line < count; ++line) {
    std::string text = "line " + std::to_string(line) + " of a long message";
    text.resize(32, '.');
    bytes += text;
  }
  return bytes;
}

std::string numbered_listing(int first, int last) {
  std::string text;
  const std::string bytes = numbered_lines(last + 1);
  for (int line = first; line <= last; ++line)
    text += line_of(bytes.substr(static_cast<std::size_t>(line) * 32, 32));
  return text;
}

class BufferDumpTest : public LoggingTest {
protected:
  BufferDumpTest() : LoggingTest(0x08) { fake_memory::reset(); }

  static std::string prefix() { return log_line("buffer-info", ""); }

  /// What the log shows of these bytes: one debug line's message.
  static std::string dumped(const std::string &bytes) {
    fake_log::clear();
    buffer_of(bytes)->dump();
    const std::vector<std::string> lines = fake_log::lines();
    EXPECT_THAT(lines, ElementsAre(StartsWith(prefix())));
    return lines.empty() ? "" : lines.front().substr(prefix().size());
  }

  /// The character column of a message shorter than a line.
  static std::string characters(const std::string &bytes) {
    const std::string text = dumped(bytes);
    const std::string start = heading + columns_of(bytes);
    EXPECT_EQ(start, text.substr(0, start.size()));
    return text.substr(std::min(start.size(), text.size()));
  }
};

} // namespace

// Never filled and filled with 0 bytes: "|PID|buffer-info> Buffer info dump:\n" and no more.
TEST_F(BufferDumpTest, EmptyBufferIsTheHeadingAlone) {
  const buffer_info_t never_filled;
  never_filled.dump();
  EXPECT_THAT(fake_log::lines(), ElementsAre(prefix() + "Buffer info dump:\n"));
  EXPECT_EQ("Buffer info dump:\n", dumped(""));
}

// 32 columns "%02X ", blanks for the missing ones, four blanks, the characters: 32 bytes a line.
TEST_F(BufferDumpTest, LinesHoldThirtyTwoBytesAndTheLastIsPaddedToTheCharacterColumn) {
  const std::string bytes = "0123456789abcdef0123456789abcdef";
  const std::string columns = "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 "
                              "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66 ";
  const std::string line = "\t" + columns + "    " + bytes + "\n";
  EXPECT_EQ(heading + "\t30 " + std::string(93, ' ') + "    0\n", dumped("0"));
  EXPECT_EQ(heading + "\t" + columns.substr(0, 93) + "   " + "    " + bytes.substr(0, 31) + "\n",
            dumped(bytes.substr(0, 31)));
  EXPECT_EQ(heading + line, dumped(bytes));
  EXPECT_EQ(heading + line + "\t21 " + std::string(93, ' ') + "    !\n", dumped(bytes + "!"));
}

// Up to 400 lines all, from 401 on 0 to 49, the notice and the last 49; then the remainder line.
TEST_F(BufferDumpTest, FromFourHundredAndOneLinesOnTheMiddleIsSkipped) {
  for (const std::string rest : {"", "rest"}) {
    const std::string end = rest.empty() ? "" : line_of(rest);
    EXPECT_EQ(heading + numbered_listing(0, 399) + end, dumped(numbered_lines(400) + rest));
    const std::string start = heading + numbered_listing(0, 49) + skip_notice;
    EXPECT_EQ(start + numbered_listing(352, 400) + end, dumped(numbered_lines(401) + rest));
    EXPECT_EQ(start + numbered_listing(32719, 32767) + end, dumped(numbered_lines(32768) + rest));
  }
}

// C3 80 FF 7F print as "FFFFFFC3 FFFFFF80 FFFFFFFF 7F ", each with its own blank.
TEST_F(BufferDumpTest, HighBytesTakeNineColumnsAndShiftTheCharacters) {
  EXPECT_EQ(heading + "\tFFFFFFC3 FFFFFF80 FFFFFFFF 7F " + std::string(28 * 3, ' ') +
                "    \xC3\x80\xFF\x7F\n",
            dumped("\xC3\x80\xFF\x7F"));
}

// 1 to 12,831 bytes 0xFF are listed whole, in eight digits each.
// Nine columns a byte exceed what three columns a byte would leave room for.
TEST_F(BufferDumpTest, MessageOfHighBytesStaysInItsBlock) {
  for (const std::size_t size : {1u, 31u, 32u, 33u, 400u * 32u, 400u * 32u + 31u}) {
    const std::string bytes(size, '\xFF');
    EXPECT_EQ(plain_listing(bytes), dumped(bytes)) << size;
  }
}

// Every byte from 1 to 255 but "%" comes out as it is in the character column.
TEST_F(BufferDumpTest, ControlAndHighBytesAreShownUnfiltered) {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '%')
      bytes += static_cast<char>(byte);
  }
  EXPECT_EQ(plain_listing(bytes), dumped(bytes));
}

// All bytes of its line stand in the hex part, and the text ends in front of it, later lines too.
TEST_F(BufferDumpTest, NulByteEndsTheEmittedText) {
  EXPECT_EQ(heading + "\t61 62 00 63 64 " + std::string(27 * 3, ' ') + "    ab",
            dumped(std::string("ab\0cd", 5)));
  std::string bytes(100, 'x');
  bytes[40] = '\0';
  EXPECT_EQ(heading + line_of(std::string(32, 'x')) + "\t" + hex(bytes.substr(32, 32)) + "    " +
                std::string(8, 'x'),
            dumped(bytes));
}

// "%n", "%s", "%1$n", "%*d" and a lone "%" come out as they are.
TEST_F(BufferDumpTest, PercentSignsNeverActAsConversions) {
  for (const std::string text :
       {"%n", "%s", "%d", "%s%s%s%s%s%s%n", "a%nb", "%1$n", "%hhn", "%*d", "%.999999999d", "%c%",
        "%", "a%", "% %", "%-%", "100% sure", "%m", "%lln%lln", "%5$s"})
    EXPECT_EQ(text + "\n", characters(text)) << text;
}

// "%%" shows as "%", "%%%" as "%%", "%%n" as "%n", as a printf format has it.
TEST_F(BufferDumpTest, PairOfPercentSignsComesOutAsOne) {
  const struct {
    const char *bytes;
    const char *shown;
  } cases[] = {{"%%", "%\n"},       {"%%%", "%%\n"},   {"%%%%", "%%\n"},  {"%%%%%", "%%%\n"},
               {"a%%b", "a%b\n"},   {"%%n", "%n\n"},   {"%%%n", "%%n\n"}, {"%%s%s", "%s%s\n"},
               {"%n%%n", "%n%n\n"}, {"%% %", "% %\n"}, {"a%%", "a%\n"}};
  for (const auto &pair : cases)
    EXPECT_EQ(pair.shown, characters(pair.bytes)) << pair.bytes;
}

// A "%" as the 32nd byte comes out, alone, in front of an "n" and in front of another "%".
// The line end stands between them in the listing, so they are no pair there.
TEST_F(BufferDumpTest, PercentSignAtTheEndOfALineStandsForItself) {
  const std::string line = std::string(31, 'x') + "%";
  EXPECT_EQ(heading + line_of(line), dumped(line));
  for (const std::string next : {"n", "%n"})
    EXPECT_EQ(heading + line_of(line) + line_of(next), dumped(line + next));
}

// "a%\0n" shows "a%", and "%%\0" shows "%".
TEST_F(BufferDumpTest, PercentSignBeforeANulStandsForItself) {
  const std::string start = heading + "\t61 25 00 6E " + std::string(28 * 3, ' ') + "    ";
  EXPECT_EQ(start + "a%", dumped(std::string("a%\0n", 4)));
  EXPECT_EQ(heading + "\t25 25 00 " + std::string(29 * 3, ' ') + "    %",
            dumped(std::string("%%\0", 3)));
}

// 6400 times "%\xFF" are listed whole.
TEST_F(BufferDumpTest, MessageOfSinglePercentSignsStaysInItsBlock) {
  std::string bytes;
  for (int i = 0; i < 400 * 16; ++i)
    bytes += "%\xFF";
  EXPECT_EQ(plain_listing(bytes), dumped(bytes));
}

// 64 of them are two lines of 32 hex columns and 16 signs.
TEST_F(BufferDumpTest, MessageOfPercentSignsShowsHalfOfThem) {
  const std::string bytes(64, '%');
  const std::string line = "\t" + hex(std::string(32, '%')) + "    " + std::string(16, '%') + "\n";
  EXPECT_EQ(heading + line + line, dumped(bytes));
}

// With every bit but 0x08 set nothing is logged, though with mask 0 its one block is allocated.
// It has room for heading, notice and lines of 358: one more than the 0, 400 or 99 full ones.
TEST_F(BufferDumpTest, DumpIsOfTheDebugCategoryAndBuiltWhateverTheMask) {
  for (const std::uint32_t mask : {0xFFFFFFF7u, 0u}) {
    fake_memory::reset();
    g_log_level = mask;
    for (const std::size_t size : {3u, 400u * 32, 401u * 32})
      buffer_of(std::string(size, 'x'))->dump();
    EXPECT_THAT(fake_memory::calloc_sizes(),
                ElementsAre(56 + 1 * 358, 56 + 401 * 358, 56 + 100 * 358));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
  }
}

// When calloc fails there is neither a listing nor a message about it.
TEST_F(BufferDumpTest, NoMemoryForTheListingMeansNoLine) {
  const auto buffer = buffer_of("abc");
  const fake_memory::shortage shortage;
  buffer->dump();
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// Data pointer, length and the bytes "a%n" are the same after it.
TEST_F(BufferDumpTest, DumpLeavesTheBufferAlone) {
  const auto buffer = buffer_of("a%n");
  const std::uint8_t *const before = buffer->data;
  buffer->dump();
  EXPECT_EQ(before, buffer->data);
  EXPECT_EQ("a%n", text_of(*buffer));
}

// Lengths of 2^31 to 2^32 - 64 log nothing, the last 63 below 2^32 the heading alone.
// The block for it has room for one line as well.
// The length counts as signed: from 2^31 on no line is listed, whatever the buffer holds.
TEST_F(BufferDumpTest, LengthBeyond31BitsListsNoByte) {
  buffer_info_t buffer;
  buffer.append("abc", 3);
  for (const std::uint32_t length : {0x80000000u, 0x80000001u, 0xC0000000u, 0xFFFFFFC0u}) {
    buffer.length = length;
    buffer.dump();
    EXPECT_THAT(fake_log::lines(), IsEmpty()) << length;
  }
  for (const std::uint32_t length : {0xFFFFFFFFu, 0xFFFFFFE1u, 0xFFFFFFE0u, 0xFFFFFFC1u}) {
    fake_log::clear();
    buffer.length = length;
    buffer.dump();
    EXPECT_THAT(fake_log::lines(), ElementsAre(prefix() + heading)) << length;
  }
  EXPECT_THAT(fake_memory::calloc_sizes(), Each(56 + 358));
  buffer.length = 3;
}

} // namespace vemk
