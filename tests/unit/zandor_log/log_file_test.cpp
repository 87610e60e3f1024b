#include "zandor_log/log_file.h"

#include "fakes/temporary_folder.h"
#include "support/child_process.h"

#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace vemk {
namespace {

constexpr size_t half_file_bytes = log_file::rotation_bytes / 2;

std::string half_file_line(char mark) {
  return std::string(half_file_bytes - 1, mark) + "\n";
}

class LogFileTest : public testing::Test {
protected:
  static std::string older(int age) { return "log." + std::to_string(age); }

  bool exists(const std::string &name) const {
    return access(folder.file(name).c_str(), F_OK) == 0;
  }

  /// By a file that is opened for it.
  static void expect_refused(const std::string &path, const std::string &fault) {
    log_file file(path);
    EXPECT_FALSE(file.write_line("lost\n"));
    EXPECT_EQ(file.fault(), fault);
  }

  temporary_folder folder;
  const std::string path = folder.file("log");
};

// Two lines make a new file, which gives group and others nothing; a second writer's stands behind.
TEST_F(LogFileTest, CreatesAFileThatOnlyItsOwnerReadsAndAppendsToIt) {
  log_file file(path);
  ASSERT_TRUE(file.write_line("one\n"));
  ASSERT_TRUE(file.write_line("two\n"));
  ASSERT_TRUE(log_file(path).write_line("three\n"));
  EXPECT_EQ(folder.read("log"), "one\ntwo\nthree\n");
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 077, 0U);
}

// At exactly 1 MiB it is kept, the next line moves it to ".1"; after 7 MiB there is no ".5".
TEST_F(LogFileTest, AFullFileIsRotatedByTheNextLineAndFourOlderOnesAreKept) {
  log_file file(path);
  for (char mark = 'a'; mark <= 'n'; mark++) {
    ASSERT_TRUE(file.write_line(half_file_line(mark)));
    EXPECT_EQ(exists(older(1)), mark > 'b') << mark;
  }
  EXPECT_TRUE(folder.read("log") == half_file_line('m') + half_file_line('n'));
  EXPECT_TRUE(folder.read(older(1)) == half_file_line('k') + half_file_line('l'));
  EXPECT_TRUE(folder.read(older(4)) == half_file_line('e') + half_file_line('f'));
  EXPECT_FALSE(exists(older(5)));
}

// A line of 2 MiB is written whole; the lines before and after stand in other files.
TEST_F(LogFileTest, ALineLongerThanAFileGetsAFileOfItsOwn) {
  const std::string long_line = std::string(2 * log_file::rotation_bytes, 'x') + "\n";
  log_file file(path);
  ASSERT_TRUE(file.write_line("before\n"));
  ASSERT_TRUE(file.write_line(long_line));
  ASSERT_TRUE(file.write_line("after\n"));
  EXPECT_EQ(folder.read(older(2)), "before\n");
  EXPECT_TRUE(folder.read(older(1)) == long_line);
  EXPECT_EQ(folder.read("log"), "after\n");
}

// After a rename() or an unlink() of the open file the next line goes to a new one at the path.
TEST_F(LogFileTest, AFileThatWasMovedOrRemovedIsMadeAgain) {
  log_file file(path);
  ASSERT_TRUE(file.write_line("old\n"));
  ASSERT_EQ(rename(path.c_str(), folder.file(older(1)).c_str()), 0);
  ASSERT_TRUE(file.write_line("new\n"));
  EXPECT_EQ(folder.read(older(1)), "old\n");
  EXPECT_EQ(folder.read("log"), "new\n");
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_TRUE(file.write_line("found\n"));
  EXPECT_EQ(folder.read("log"), "found\n");
}

// It is false with "No such device or address" and does not wait for a reader.
TEST_F(LogFileTest, AFifoThatNobodyReadsIsReportedAtOnce) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expect_refused(path, "No such device or address");
}

// It is false with "it is a symbolic link", whether there is a file behind the link or not.
TEST_F(LogFileTest, ASymbolicLinkIsNotFollowed) {
  // In a folder that others may write, a link at the log's name made root write into any file.
  const std::string victim = folder.file("victim");
  ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
  log_file file(path);
  EXPECT_FALSE(file.write_line("lost\n"));
  EXPECT_EQ(file.fault(), "it is a symbolic link");
  EXPECT_FALSE(exists("victim"));
  folder.write("victim", "before\n");
  EXPECT_FALSE(file.write_line("lost\n"));
  EXPECT_EQ(folder.read("victim"), "before\n");
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_TRUE(file.write_line("kept\n"));
  EXPECT_EQ(folder.read("log"), "kept\n");
}

// A link to the open file itself, put in its place, is noticed with the next line.
TEST_F(LogFileTest, ALinkInThePlaceOfTheOpenFileIsNotFollowed) {
  log_file file(path);
  ASSERT_TRUE(file.write_line("before\n"));
  const std::string moved = folder.file(older(1));
  ASSERT_EQ(rename(path.c_str(), moved.c_str()), 0);
  ASSERT_EQ(symlink(moved.c_str(), path.c_str()), 0);
  EXPECT_FALSE(file.write_line("lost\n"));
  EXPECT_EQ(folder.read(older(1)), "before\n");
}

// Modes 0666, 0620 and 0602 are refused by their number and get no line; 0644 does.
TEST_F(LogFileTest, AFileThatOthersMayWriteIsNotTakenOver) {
  // Whoever had put such a file there could alter the log, and hold its lock.
  ASSERT_TRUE(log_file(path).write_line("before\n"));
  const std::pair<mode_t, const char *> refused[] = {
      {0666, "0666"}, {0620, "0620"}, {0602, "0602"}};
  for (const auto &[mode, digits] : refused) {
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    expect_refused(path, "others may write it (mode " + std::string(digits) + ")");
  }
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  EXPECT_TRUE(log_file(path).write_line("after\n"));
  EXPECT_EQ(folder.read("log"), "before\nafter\n");
}

// It is false with "it belongs to user 65534, not to user 0", for a FIFO with a reader as well.
TEST_F(LogFileTest, AFileOfAnotherUserIsNotTakenOver) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give a file away";
  const std::string fifo = folder.file("fifo");
  ASSERT_TRUE(log_file(path).write_line("before\n"));
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  for (const std::string &name : {path, fifo}) {
    ASSERT_EQ(chown(name.c_str(), 65534, 65534), 0);
    expect_refused(name, "it belongs to user 65534, not to user 0");
  }
  close(reader);
  EXPECT_EQ(folder.read("log"), "before\n");
}

// While another process keeps the lock, 30 lines are written in less than 2 s.
TEST_F(LogFileTest, ALockThatIsNeverReleasedCostsItsWaitOnlyOnce) {
  log_file file(path);
  ASSERT_TRUE(file.write_line("first\n"));
  int locked[2];
  int finished[2];
  ASSERT_EQ(pipe(locked), 0);
  ASSERT_EQ(pipe(finished), 0);
  const pid_t holder = start_child([&] {
    close(finished[1]);
    const int descriptor = open(path.c_str(), O_WRONLY);
    if (!line_writer().lock(descriptor))
      _exit(1);
    close(locked[0]);
    close(locked[1]);
    read_to_end(finished[0]);
  });
  close(locked[1]);
  read_to_end(locked[0]);

  constexpr int lines = 30;
  const auto start = std::chrono::steady_clock::now();
  for (int line = 0; line < lines; line++)
    EXPECT_TRUE(file.write_line("unlocked\n"));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(folder.read("log").size(), sizeof("first") + lines * sizeof("unlocked"));

  close(finished[1]);
  EXPECT_EQ(wait_for_child(holder), 0);
  close(locked[0]);
  close(finished[0]);
}

class SharedLogFileTest : public LogFileTest {
protected:
  static constexpr int writing_processes = 4;
  static constexpr int lines_each = 2000;
  static constexpr size_t filling_bytes = 3000;

  static std::string line_of(int process, int number) {
    return std::to_string(process) + " " + std::to_string(number) + " " +
           std::string(filling_bytes, static_cast<char>('a' + process));
  }

  void write_from_all_processes() const {
    std::vector<pid_t> children;
    for (int process = 0; process < writing_processes; process++)
      children.push_back(start_child([this, process] {
        log_file file(path);
        for (int number = 0; number < lines_each; number++)
          if (!file.write_line(line_of(process, number) + "\n"))
            _exit(1);
      }));
    for (const pid_t child : children)
      EXPECT_EQ(wait_for_child(child), 0);
  }

  // Reads a log and checks that each of its lines is whole.
  void collect(const std::string &name) {
    std::istringstream log(folder.read(name));
    for (std::string line; std::getline(log, line);) {
      int process = -1;
      int number = -1;
      std::istringstream(line) >> process >> number;
      ASSERT_TRUE(line == line_of(process, number))
          << name << " has a torn line: " << line.substr(0, 10) << "...";
      EXPECT_TRUE(seen[process].insert(number).second) << line.substr(0, 10) << " came twice";
    }
  }

  std::map<int, std::set<int>> seen;
};

// 4 processes write 2000 lines of 3 kB each: from the first line kept on none is missing.
TEST_F(SharedLogFileTest, NoLineIsTornOrLostWhileTheFileRotates) {
  write_from_all_processes();
  ASSERT_TRUE(exists(older(4)));
  EXPECT_FALSE(exists(older(5)));
  for (int age = log_file::older_files_kept; age >= 1; age--) {
    collect(older(age));
    // A process that waited for the lock in vain writes without it, beyond the limit.
    EXPECT_LT(folder.read(older(age)).size(), 2 * log_file::rotation_bytes);
  }
  collect("log");

  // The oldest lines are gone by design; from the first that is kept on there is no gap.
  size_t kept = 0;
  for (const auto &[process, numbers] : seen) {
    EXPECT_EQ(*numbers.rbegin(), lines_each - 1) << "of process " << process;
    EXPECT_EQ(numbers.size(), static_cast<size_t>(lines_each - *numbers.begin()));
    kept += numbers.size();
  }
  EXPECT_GT(kept, 4 * log_file::rotation_bytes / (filling_bytes + 20));
}

} // namespace
} // namespace vemk
