#include "main/pid_file.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/main/fake_process.h"

namespace vemk {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;

class PidFileTest : public testing::Test {
protected:
  PidFileTest() { fake_process::reset(); }

  /// The commands that a start runs over a PID file of this text.
  static std::vector<std::string> commands_for(const std::string &text) {
    fake_process::reset();
    fake_process::write_pid_file(text);
    replace_earlier_instance();
    std::vector<std::string> commands;
    for (const std::string &event : fake_process::events()) {
      if (event.rfind("system ", 0) == 0)
        commands.push_back(event.substr(7));
    }
    return commands;
  }

  /// The one command for a file's text must name a PID that is nobody's: above the largest one that
  /// Linux gives, and no process group.
  static void expect_harmless_command(const std::string &text) {
    const std::vector<std::string> commands = commands_for(text);
    ASSERT_EQ(1u, commands.size()) << text;
    unsigned pid = 0;
    ASSERT_EQ(1, sscanf(commands[0].c_str(), "/bin/kill -s TERM %u", &pid)) << text;
    EXPECT_GT(pid, 1u << 22) << text;
    EXPECT_LT(pid, 1u << 31) << text;
    EXPECT_EQ("/bin/kill -s TERM " + std::to_string(pid) + " 2> /dev/null", commands[0]);
  }
};

} // namespace

// Without the file no command is run; the file is opened with "w+" and holds "4242\n" then.
TEST_F(PidFileTest, MissingFileIsSkippedAndWritten) {
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("open PID file r failed", "open PID file w+", "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// "r", "/bin/kill -s TERM 123 2> /dev/null" run, close, "w+", close, in this order.
TEST_F(PidFileTest, RecordedProcessIsTerminatedBeforeTheOwnPidIsWritten) {
  fake_process::write_pid_file("123\n");
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("open PID file r", "system /bin/kill -s TERM 123 2> /dev/null",
                          "fclose PID file", "open PID file w+", "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// "123" with blanks before it, or a sign, zeros, letters or numbers around it, is PID 123.
TEST_F(PidFileTest, OnlyTheFirstNumberIsRead) {
  for (const char *text : {"123", "123\n", "  \n 123\n456\n", "123abc", "+123", "0123", "123 456"})
    EXPECT_THAT(commands_for(text), ElementsAre("/bin/kill -s TERM 123 2> /dev/null")) << text;
}

// A file that holds this process's own PID, 4242, leads to the same kill command.
TEST_F(PidFileTest, OwnPidIsNoException) {
  EXPECT_THAT(commands_for("4242\n"), ElementsAre("/bin/kill -s TERM 4242 2> /dev/null"));
}

// Of "7; reboot" and "7%n%s" the command has the 7 only.
TEST_F(PidFileTest, NothingButTheNumberReachesTheCommand) {
  EXPECT_THAT(commands_for("7; reboot\n"), ElementsAre("/bin/kill -s TERM 7 2> /dev/null"));
  EXPECT_THAT(commands_for("7%n%s\n"), ElementsAre("/bin/kill -s TERM 7 2> /dev/null"));
}

// Empty, blank, a word or NULs: one kill command, with a PID above 2^22 that nobody can have.
TEST_F(PidFileTest, FileWithoutANumberStillRunsAKillCommandThatReachesNoProcess) {
  for (const std::string text : {"", "\n", "abc", "$(reboot)", "-", "x123"})
    expect_harmless_command(text);
  expect_harmless_command(std::string(3, '\0'));
}

// 0, negative numbers and 2^31 or more lead to one kill command with a PID that is nobody's.
// "-1" reads as 4294967295, which the kill command takes for -1 again: every process of the system.
// 0 is the caller's own group. Either would end the daemon at each start, before it writes its PID.
TEST_F(PidFileTest, NumberThatIsNoPidReachesNoProcess) {
  for (const char *text : {"0", "-1", "-123", "2147483648", "4294967295"})
    expect_harmless_command(text);
}

// 2^32 + 123, -2^32 + 123, 2^64 + 123 and longer ones lead to a PID that is nobody's, never to 123.
// Where long has 64 bits, the number was cut to 32 bits, and its lower half was killed.
TEST_F(PidFileTest, NumberBeyond32BitsReachesNoProcess) {
  for (const char *text : {"4294967296", "4294967419", "-4294967173", "18446744073709551739",
                           "-18446744073709551493", "123000000000000000000000000000"})
    expect_harmless_command(text);
}

// 2147483647, 2^31 - 1, reaches the kill command, and stands there when the file holds no PID.
TEST_F(PidFileTest, LargestNumberOfTheKillCommandIsNobodys) {
  for (const char *text : {"2147483647", "2147483648", ""})
    EXPECT_THAT(commands_for(text), ElementsAre("/bin/kill -s TERM 2147483647 2> /dev/null"))
        << text;
}

// When system() returns -1, perror("system") is called and the PID file written all the same.
TEST_F(PidFileTest, CommandThatCannotBeRunIsReportedAndSkipped) {
  fake_process::write_pid_file("123\n");
  fake_process::set_system_result(-1);
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("open PID file r", "system /bin/kill -s TERM 123 2> /dev/null",
                          "perror system", "fclose PID file", "open PID file w+",
                          "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// The statuses 0, 256, 127 << 8 and 15 of system() lead to no perror().
TEST_F(PidFileTest, CommandThatFindsNoProcessIsNotReported) {
  for (const int status : {0, 256, 127 << 8, 15}) {
    fake_process::reset();
    fake_process::write_pid_file("123\n");
    fake_process::set_system_result(status);
    replace_earlier_instance();
    EXPECT_THAT(fake_process::events(), Not(Contains(StartsWith("perror")))) << status;
  }
}

// When neither "r" nor "w+" opens the file there is no command, no perror() and no more tries.
TEST_F(PidFileTest, FileThatCannotBeWrittenIsSkippedSilently) {
  fake_process::make_pid_file_unreachable();
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("open PID file r failed", "open PID file w+ failed"));
}

// A FIFO at the PID file's path is opened without waiting and closed: no command, no perror().
// A start used to wait for ever until somebody wrote to the FIFO.
TEST_F(PidFileTest, FifoInItsPlaceIsSkipped) {
  ASSERT_EQ(0, mkfifo(fake_process::pid_file_path().c_str(), 0600));
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(), ElementsAre("open PID file r", "close PID file",
                                                  "open PID file w+", "close PID file"));
}

// A folder at the PID file's path: no command, no perror().
TEST_F(PidFileTest, FolderInItsPlaceIsSkipped) {
  ASSERT_EQ(0, mkdir(fake_process::pid_file_path().c_str(), 0700));
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("open PID file r", "close PID file", "open PID file w+ failed"));
}

// A link to "123\n" at the PID file's path: no command, and the file behind it keeps its content.
// A start as root overwrote whatever file the link's owner had chosen.
TEST_F(PidFileTest, SymbolicLinkInItsPlaceIsNotFollowed) {
  const std::string target = fake_process::write_file("target", "123\n");
  ASSERT_EQ(0, symlink(target.c_str(), fake_process::pid_file_path().c_str()));
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("open PID file r failed", "open PID file w+ failed"));
  EXPECT_EQ("123\n", fake_process::pid_file());
}

// A link to nothing at the PID file's path: nothing is made where it points.
TEST_F(PidFileTest, DanglingLinkInItsPlaceMakesNoFile) {
  const std::string target = fake_process::pid_file_path() + " elsewhere";
  ASSERT_EQ(0, symlink(target.c_str(), fake_process::pid_file_path().c_str()));
  replace_earlier_instance();
  EXPECT_EQ(-1, access(target.c_str(), F_OK));
}

// "1234567890\nmore\n" becomes "4242\n": the file is truncated.
TEST_F(PidFileTest, LongerOldContentLeavesNoRest) {
  fake_process::write_pid_file("1234567890\nmore\n");
  replace_earlier_instance();
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// The PID 4242 that one start writes is the one that the next start's kill command names.
TEST_F(PidFileTest, NextStartTerminatesTheOneThatWroteTheFile) {
  replace_earlier_instance();
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(), Contains("system /bin/kill -s TERM 4242 2> /dev/null"));
}

} // namespace vemk
