#include "zandor_log/line_writer.h"

#include "support/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace vemk {
namespace {

constexpr int writing_processes = 4;
constexpr int lines_each = 200;
constexpr size_t long_line_bytes = 20000;

class LineWriterTest : public testing::Test {
protected:
  LineWriterTest() { EXPECT_EQ(pipe(ends), 0); }
  ~LineWriterTest() override {
    close(ends[0]);
    close(ends[1]);
  }

  int ends[2];
};

// 4 processes write 200 lines of 20,000 bytes each into one pipe, and none is torn or lost.
TEST_F(LineWriterTest, LongLinesOfSeveralProcessesStayWholeInAPipe) {
  std::vector<pid_t> children;
  for (int process = 0; process < writing_processes; process++)
    children.push_back(start_child([this, process] {
      const std::string line(long_line_bytes, static_cast<char>('a' + process));
      line_writer writer;
      for (int number = 0; number < lines_each; number++)
        writer.write(ends[1], line + "\n");
    }));
  close(ends[1]);
  std::istringstream written(read_to_end(ends[0]));
  for (const pid_t child : children)
    EXPECT_EQ(wait_for_child(child), 0);

  int count = 0;
  for (std::string line; std::getline(written, line); count++)
    ASSERT_TRUE(line == std::string(long_line_bytes, line[0])) << "line " << count << " is torn";
  EXPECT_EQ(count, writing_processes * lines_each);
}

// After a full pipe cut a line, the next one comes with a line end in front, later ones without.
TEST_F(LineWriterTest, TheLineAfterACutOneStartsOnANewLine) {
  ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const auto capacity = static_cast<size_t>(fcntl(ends[1], F_GETPIPE_SZ));
  line_writer writer;
  writer.write(ends[1], std::string(capacity + 1, 'x') + "\n");
  std::string taken(capacity, '\0');
  ASSERT_EQ(read(ends[0], taken.data(), capacity), static_cast<ssize_t>(capacity));
  EXPECT_EQ(taken, std::string(capacity, 'x'));

  writer.write(ends[1], "next\n");
  writer.write(ends[1], "after\n");
  close(ends[1]);
  EXPECT_EQ(read_to_end(ends[0]), "\nnext\nafter\n");
}

// Of a line for a full pipe no byte is written, and the next one starts without a line end.
TEST_F(LineWriterTest, ALineThatFoundNoRoomAtAllLeavesNoTrace) {
  ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const auto capacity = static_cast<size_t>(fcntl(ends[1], F_GETPIPE_SZ));
  line_writer writer;
  const std::string full = std::string(capacity - 1, 'x') + "\n";
  writer.write(ends[1], full);
  writer.write(ends[1], "lost\n");
  std::string taken(capacity, '\0');
  ASSERT_EQ(read(ends[0], taken.data(), capacity), static_cast<ssize_t>(capacity));

  writer.write(ends[1], "next\n");
  close(ends[1]);
  EXPECT_EQ(read_to_end(ends[0]), "next\n");
}

} // namespace
} // namespace vemk
