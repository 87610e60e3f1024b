#include "zandor_log.h"

#include "child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

// Each case runs in a child process, because logging is set up once in a process.
namespace vemk {
namespace {

using testing::MatchesRegex;

constexpr size_t timestamp_length = sizeof("2026-11-20 22:14:11.042") - 1;

__attribute__((format(printf, 1, 2))) void finish_line(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vzandor_log_msg(format, arguments);
  va_end(arguments);
}

void log_text(const char *text) {
  zandor_log_msg_timed("|%d|%s> ", 7, "case");
  finish_line("%s", text);
}

void start_log_to(const std::string &path) {
  setenv("ZANDOR_LOG_FILE", path.c_str(), 1);
  init_zandor_logrotate("vemk");
}

void start_log_to_standard_error() {
  start_log_to("");
}

std::string without_timestamp(const std::string &line) {
  return line.size() < timestamp_length ? "too short: " + line : line.substr(timestamp_length);
}

class ZandorLogTest : public testing::Test {
protected:
  temporary_folder folder;
  const std::string path = folder.file("log");
};

// Behind the timestamp stands "|1234|vemk-main> text 5 of seven\n".
TEST_F(ZandorLogTest, PrefixAndTextAreOneLine) {
  const auto result = run_in_child([] {
    start_log_to_standard_error();
    zandor_log_msg_timed("|%d|%s> ", 1234, "vemk-main");
    finish_line("text %d of %s\n", 5, "seven");
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(without_timestamp(result.error_output), "|1234|vemk-main> text 5 of seven\n");
}

// A line begins as "2026-11-20 22:14:11.042|" does, with the present local time.
TEST_F(ZandorLogTest, TheTimestampIsTheLocalTimeWithMilliseconds) {
  const time_t before = time(nullptr);
  const auto result = run_in_child([] {
    start_log_to_standard_error();
    log_text("\n");
  });
  const time_t after = time(nullptr);
  EXPECT_THAT(
      result.error_output,
      MatchesRegex("[0-9]{4}(-[0-9]{2}){2} [0-9]{2}(:[0-9]{2}){2}[.][0-9]{3}[|]7[|]case> \n"));
  tm parts{};
  parts.tm_isdst = -1;
  ASSERT_NE(strptime(result.error_output.c_str(), "%Y-%m-%d %H:%M:%S", &parts), nullptr);
  const time_t logged = mktime(&parts);
  EXPECT_GE(logged, before);
  EXPECT_LE(logged, after);
}

// "{}", "{0}", "%n" and "%s" from arguments stay as they are; "%%" of a format becomes "%".
TEST_F(ZandorLogTest, BracesAndPercentSignsComeOutAsTheyAre) {
  const auto result = run_in_child([] {
    start_log_to_standard_error();
    zandor_log_msg_timed("%s", "{} %n {0}");
    finish_line(" {:x} %%d %s {\n", "%s%n{}");
  });
  EXPECT_EQ(without_timestamp(result.error_output), "{} %n {0} {:x} %d %s%n{} {\n");
}

// A message of 1,048,576 characters is one line behind its prefix.
TEST_F(ZandorLogTest, ALineOfAMebibyteComesOutWhole) {
  const std::string text(1024 * 1024, 'x');
  const auto result = run_in_child([&text] {
    start_log_to_standard_error();
    log_text((text + "\n").c_str());
  });
  EXPECT_TRUE(without_timestamp(result.error_output) == "|7|case> " + text + "\n");
}

// A message without "\n", an empty one too, still ends its line, and one with it has no second.
TEST_F(ZandorLogTest, AMissingLineEndIsAdded) {
  const auto result = run_in_child([] {
    start_log_to_standard_error();
    log_text("without");
    log_text("with\n");
    log_text("");
  });
  const std::string stamp = ".{23}[|]7[|]case> ";
  EXPECT_THAT(result.error_output,
              MatchesRegex(stamp + "without\n" + stamp + "with\n" + stamp + "\n"));
}

// Of "kept\0gone\n" the line has "kept" and a line end.
TEST_F(ZandorLogTest, AMessageCutByANulByteStillEndsItsLine) {
  const auto result = run_in_child([] {
    start_log_to_standard_error();
    log_text("");
    zandor_log_msg_timed("%s", "prefix ");
    finish_line("kept%cgone\n", '\0');
  });
  EXPECT_EQ(without_timestamp(result.error_output.substr(result.error_output.find('\n') + 1)),
            "prefix kept\n");
}

// Two threads that begin lines before either ends its own get "other thread" and "main thread".
TEST_F(ZandorLogTest, EachThreadFinishesTheLineItBegan) {
  const auto result = run_in_child([] {
    start_log_to_standard_error();
    std::promise<void> main_has_begun;
    std::promise<void> other_has_begun;
    std::thread other([&] {
      zandor_log_msg_timed("%s", "other ");
      other_has_begun.set_value();
      main_has_begun.get_future().wait();
      finish_line("thread\n");
    });
    other_has_begun.get_future().wait();
    zandor_log_msg_timed("%s", "main ");
    main_has_begun.set_value();
    other.join();
    finish_line("thread\n");
  });
  EXPECT_THAT(result.error_output, MatchesRegex(".{23}other thread\n.{23}main thread\n"));
}

// A second beginning writes the first as a line; an end without a beginning is a line too.
TEST_F(ZandorLogTest, ABeginningThatIsNeverFinishedBecomesALine) {
  const auto result = run_in_child([] {
    start_log_to_standard_error();
    zandor_log_msg_timed("%s", "first ");
    zandor_log_msg_timed("%s", "second ");
    finish_line("end\n");
    finish_line("no beginning\n");
  });
  EXPECT_THAT(result.error_output,
              MatchesRegex(".{23}first \n.{23}second end\n.{23}no beginning\n"));
}

// Without init_zandor_logrotate the line goes to standard error.
TEST_F(ZandorLogTest, WorksWithoutInitialisation) {
  const auto result = run_in_child([] {
    unsetenv("ZANDOR_LOG_FILE");
    log_text("early\n");
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(without_timestamp(result.error_output), "|7|case> early\n");
}

// With ZANDOR_LOG_FILE set the line is in that file and standard error stays empty.
TEST_F(ZandorLogTest, TheFileReceivesTheLinesInsteadOfStandardError) {
  const auto result = run_in_child([this] {
    start_log_to(path);
    log_text("filed\n");
  });
  EXPECT_EQ(result.error_output, "");
  EXPECT_EQ(without_timestamp(file_content(path)), "|7|case> filed\n");
}

// One note with the reason, then the lines; once the folder exists they go to the file.
TEST_F(ZandorLogTest, LinesGoToStandardErrorWhileTheFileCannotBeOpened) {
  const std::string late = folder.file("late");
  const auto result = run_in_child([&late] {
    start_log_to(late + "/log");
    log_text("one\n");
    log_text("two\n");
    mkdir(late.c_str(), 0700);
    log_text("three\n");
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.error_output, MatchesRegex("vemk: cannot open the log file " + late +
                                                "/log: No such file or directory; [^\n]*\n"
                                                ".{23}[|]7[|]case> one\n.{23}[|]7[|]case> two\n"));
  EXPECT_EQ(without_timestamp(file_content(late + "/log")), "|7|case> three\n");
}

// One note for each reason that follows another: a mode of 0666, then a symbolic link.
TEST_F(ZandorLogTest, FileThatMayNotBeTrustedIsNamedWithItsReason) {
  ASSERT_EQ(close(creat(path.c_str(), 0600)), 0);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  const auto result = run_in_child([this] {
    start_log_to(path);
    log_text("one\n");
    log_text("two\n");
    unlink(path.c_str());
    if (symlink("/dev/null", path.c_str()) == 0)
      log_text("three\n");
  });
  EXPECT_EQ(result.status, 0);
  const std::string note = "vemk: cannot open the log file " + path + ": ";
  EXPECT_THAT(result.error_output,
              MatchesRegex(note +
                           "others may write it [(]mode 0666[)]; logging to standard error until "
                           "it can\n.{23}[|]7[|]case> one\n.{23}[|]7[|]case> two\n" +
                           note +
                           "it is a symbolic link; logging to standard error until it can\n"
                           ".{23}[|]7[|]case> three\n"));
  EXPECT_EQ(file_content(path), "");
}

// With /dev/full as the file the lines are lost, nothing is said and the status is 0.
TEST_F(ZandorLogTest, AFullDiskDoesNotStopTheProgram) {
  const auto result = run_in_child([] {
    start_log_to("/dev/full");
    log_text("lost\n");
    log_text("lost\n");
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.error_output, "");
}

// With /dev/full as standard error the line is lost and the status is 0.
TEST_F(ZandorLogTest, AFullDeviceAsStandardErrorDoesNotStopTheProgram) {
  const auto result = run_in_child([] {
    dup2(open("/dev/full", O_WRONLY), STDERR_FILENO);
    start_log_to_standard_error();
    log_text("lost\n");
  });
  EXPECT_EQ(result.status, 0);
}

// Two lines into a pipe without a reader raise no SIGPIPE: the status is 0.
TEST_F(ZandorLogTest, AStandardErrorThatNobodyReadsDoesNotEndTheProgram) {
  const auto result = run_in_child([] {
    int ends[2];
    if (pipe(ends) != 0)
      _exit(1);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    start_log_to_standard_error();
    log_text("lost\n");
    log_text("lost\n");
  });
  EXPECT_EQ(result.status, 0);
}

// A file opened after the start gets a descriptor above 2 and no log line.
TEST_F(ZandorLogTest, AClosedStandardErrorNeverBecomesSomebodyElsesDescriptor) {
  const auto result = run_in_child([this] {
    close(STDERR_FILENO);
    start_log_to_standard_error();
    const int later = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    log_text("lost\n");
    _exit(later > STDERR_FILENO ? 0 : 1);
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(file_content(path), "");
}

// A handler for SIGPIPE from before the start is not replaced by SIG_IGN.
TEST_F(ZandorLogTest, AHandlerOfBrokenPipesThatTheProgramSetStays) {
  const auto result = run_in_child([] {
    (void)std::signal(SIGPIPE, [](int) {});
    start_log_to_standard_error();
    struct sigaction current {};
    sigaction(SIGPIPE, nullptr, &current);
    _exit(current.sa_handler == SIG_IGN ? 1 : 0);
  });
  EXPECT_EQ(result.status, 0);
}

// In 20 rounds exit(0) beside a thread that logs ends with status 0 and no complaint.
TEST_F(ZandorLogTest, ExitOnOneThreadLeavesALoggingThreadUnharmed) {
  for (int round = 0; round < 20; round++) {
    const auto result = run_in_child([this] {
      start_log_to(path);
      std::promise<void> logging;
      std::thread([&logging] {
        log_text("first\n");
        logging.set_value();
        for (;;)
          log_text("again\n");
      }).detach();
      logging.get_future().wait();
      exit(0);
    });
    ASSERT_EQ(result.status, 0) << "round " << round;
    ASSERT_EQ(result.error_output, "") << "round " << round;
  }
}

} // namespace
} // namespace vemk
