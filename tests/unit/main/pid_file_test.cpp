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

  static std::vector<std::string> events_of_a_start() {
    replace_earlier_instance();
    return fake_process::events();
  }

  static std::string kill_command(int pid) {
    return "/bin/kill -s TERM " + std::to_string(pid) + " 2> /dev/null";
  }

  /// The commands that a start runs over a PID file of this text.
  static std::vector<std::string> commands_for(const std::string &text) {
    fake_process::reset();
    fake_process::write_pid_file(text);
    std::vector<std::string> commands;
    for (const std::string &event : events_of_a_start()) {
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
    EXPECT_EQ(kill_command(static_cast<int>(pid)), commands[0]);
  }
};

} // namespace

// Without the file no command is run; the file is opened with "w+" and holds "4242\n" then.
TEST_F(PidFileTest, MissingFileIsSkippedAndWritten) {
  EXPECT_THAT(events_of_a_start(),
              ElementsAre("open PID file r failed", "open PID file w+", "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// "r", "/bin/kill -s TERM 123 2> /dev/null" run, close, "w+", close, in this order.
TEST_F(PidFileTest, RecordedProcessIsTerminatedBeforeTheOwnPidIsWritten) {
  fake_process::write_pid_file("123\n");
  EXPECT_THAT(events_of_a_start(),
              ElementsAre("open PID file r", "system " + kill_command(123), "fclose PID file",
                          "open PID file w+", "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// Of "123 456", with blanks, a sign or zeros before it and letters behind, the command has the 123.
TEST_F(PidFileTest, OnlyTheFirstNumberIsReadAndReachesTheCommand) {
  for (const char *text : {"123", "123\n", "  \n 123\n456\n", "123abc", "+123", "0123", "123 456",
                           "123; reboot\n", "123%n%s\n"})
    EXPECT_THAT(commands_for(text), ElementsAre(kill_command(123))) << text;
}

// 1, the own PID 4242, and 2147483647, which stands for a file without a PID, reach it too.
TEST_F(PidFileTest, OwnPidIsNoException) {
  EXPECT_THAT(commands_for("1"), ElementsAre(kill_command(1)));
  EXPECT_THAT(commands_for("4242\n"), ElementsAre(kill_command(4242)));
  for (const char *text : {"2147483647", "2147483648", ""})
    EXPECT_THAT(commands_for(text), ElementsAre(kill_command(2147483647))) << text;
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

// When system() returns -1, perror("system") is called and the PID file written all the same.
TEST_F(PidFileTest, CommandThatCannotBeRunIsReportedAndSkipped) {
  fake_process::write_pid_file("123\n");
  fake_process::set_system_result(-1);
  EXPECT_THAT(events_of_a_start(),
              ElementsAre("open PID file r", "system " + kill_command(123), "perror system",
                          "fclose PID file", "open PID file w+", "fclose PID file"));
  EXPECT_EQ("4242\n", fake_process::pid_file());
}

// The statuses 0, 256, 127 << 8 and 15 of system() lead to no perror().
TEST_F(PidFileTest, CommandThatFindsNoProcessIsNotReported) {
  for (const int status : {0, 256, 127 << 8, 15}) {
    fake_process::reset();
    fake_process::write_pid_file("123\n");
    fake_process::set_system_result(status);
    EXPECT_THAT(events_of_a_start(), Not(Contains(StartsWith("perror")))) << status;
  }
}

// When neither "r" nor "w+" opens the file there is no command, no perror() and no more tries.
TEST_F(PidFileTest, FileThatCannotBeWrittenIsSkippedSilently) {
  fake_process::make_pid_file_unreachable();
  EXPECT_THAT(events_of_a_start(),
              ElementsAre("open PID file r failed", "open PID file w+ failed"));
}

// A FIFO or a folder at the PID file's path is opened without waiting: no command, no perror().
// A start used to wait for ever until somebody wrote to the FIFO.
TEST_F(PidFileTest, FifoOrFolderInItsPlaceIsSkipped) {
  ASSERT_EQ(0, mkfifo(fake_process::pid_file_path().c_str(), 0600));
  EXPECT_THAT(events_of_a_start(), ElementsAre("open PID file r", "close PID file",
                                               "open PID file w+", "close PID file"));
  fake_process::reset();
  ASSERT_EQ(0, mkdir(fake_process::pid_file_path().c_str(), 0700));
  EXPECT_THAT(events_of_a_start(),
              ElementsAre("open PID file r", "close PID file", "open PID file w+ failed"));
}

// A link to "123\n" at the PID file's path: no command, and the file behind it keeps its content.
// A start as root overwrote whatever file the link's owner had chosen.
TEST_F(PidFileTest, SymbolicLinkInItsPlaceIsNotFollowed) {
  const std::string target = fake_process::write_file("target", "123\n");
  ASSERT_EQ(0, symlink(target.c_str(), fake_process::pid_file_path().c_str()));
  EXPECT_THAT(events_of_a_start(),
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

// Without a standard input the file gets descriptor 0; it is read and written all the same.
TEST_F(PidFileTest, DescriptorZeroIsOneLikeAnyOther) {
  const int kept = dup(0);
  close(0);
  EXPECT_THAT(commands_for("123"), ElementsAre(kill_command(123)));
  EXPECT_EQ("4242\n", fake_process::pid_file());
  dup2(kept, 0);
  close(kept);
}

// "1234567890\nmore\n" becomes "4242\n", the PID that the next start's kill command names.
TEST_F(PidFileTest, NextStartTerminatesTheOneThatWroteTheFile) {
  fake_process::write_pid_file("1234567890\nmore\n");
  replace_earlier_instance();
  EXPECT_EQ("4242\n", fake_process::pid_file());
  EXPECT_THAT(events_of_a_start(), Contains("system " + kill_command(4242)));
}

} // namespace vemk
