#include "main/pid_file.h"

#include <cstdio>
#include <string>
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
              ElementsAre("fopen PID file r failed", "fopen PID file w+", "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// "r", "/bin/kill -s TERM 123 2> /dev/null" run, close, "w+", close, in this order.
TEST_F(PidFileTest, RecordedProcessIsTerminatedBeforeTheOwnPidIsWritten) {
  fake_process::write_pid_file("123\n");
  replace_earlier_instance();
  EXPECT_THAT(fake_process::events(),
              ElementsAre("fopen PID file r", "system /bin/kill -s TERM 123 2> /dev/null",
                          "fclose PID file", "fopen PID file w+", "fclose PID file"));
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
              ElementsAre("fopen PID file r", "system /bin/kill -s TERM 123 2> /dev/null",
                          "perror system", "fclose PID file", "fopen PID file w+",
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
              ElementsAre("fopen PID file r failed", "fopen PID file w+ failed"));
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
