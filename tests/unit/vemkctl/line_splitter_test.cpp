#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vemkctl/line_splitter.h"

namespace vemk {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LineSplitterTest : public ::testing::Test {
protected:
  std::vector<std::string> lines;
  line_splitter splitter{8, [this](std::string_view line) { lines.emplace_back(line); }};
};

// Four lines, an empty one among them, with NUL, carriage return and 0xFF; the end adds none.
TEST_F(LineSplitterTest, HandsOnEachLineWithoutItsLineFeed) {
  splitter.add(std::string("one\na\0b\r\n\n\xff\n", 12));
  const auto all = ElementsAre("one", std::string("a\0b\r", 4), "", "\xff");
  EXPECT_THAT(lines, all);
  splitter.finish();
  EXPECT_THAT(lines, all);
}

// A line in two pieces comes with its line feed, what stands behind the last one at the end.
TEST_F(LineSplitterTest, HandsOnALineAsSoonAsItsLineFeedComesAndTheLastAtTheEnd) {
  splitter.add("o");
  splitter.add("ne");
  EXPECT_THAT(lines, IsEmpty());
  splitter.add("\ntw");
  EXPECT_THAT(lines, ElementsAre("one"));
  splitter.finish();
  EXPECT_THAT(lines, ElementsAre("one", "tw"));
}

// No byte is no line, not an empty one.
TEST_F(LineSplitterTest, HasNoLinesInAnEmptyInput) {
  splitter.add("");
  splitter.finish();
  EXPECT_THAT(lines, IsEmpty());
}

// 8 of 8 bytes pass; the ninth is "line 2 is longer than 8 bytes".
TEST_F(LineSplitterTest, TakesALineOfTheGreatestLengthAndRefusesALongerOne) {
  splitter.add("12345678\n1234");
  EXPECT_THAT(lines, ElementsAre("12345678"));
  try {
    splitter.add("56789");
    FAIL() << "accepted";
  } catch (const std::length_error &error) {
    EXPECT_STREQ(error.what(), "line 2 is longer than 8 bytes");
  }
}

} // namespace
} // namespace vemk
