#include "zandor_log.h"

#include "fakes/temporary_folder.h"
#include "support/child_process.h"

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <functional>
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

/// The lines without their timestamps; notes, which begin with "vemk: ", have none.
std::string without_timestamps(std::string lines) {
  for (size_t at = 0; at < lines.size();) {
    if (lines.compare(at, 6, "vemk: ") != 0)
      lines.erase(at, timestamp_length);
    const size_t end = lines.find('\n', at);
    at = end == std::string::npos ? lines.size() : end + 1;
  }
  return lines;
}

class ZandorLogTest : public testing::Test {
protected:
  /// What a program that ends with status 0 writes to standard error, without the timestamps.
  static std::string said_by(const std::function<void()> &work) {
    const child_result_t result = run_in_child(work);
    EXPECT_EQ(result.status, 0);
    return without_timestamps(result.error_output);
  }

  /// The same of one that logs there.
  static std::string logged_by(const std::function<void()> &work) {
    return said_by([&work] {
      start_log_to("");
      work();
    });
  }

  std::string filed(const std::string &name = "log") const {
    return without_timestamps(folder.read(name));
  }

  temporary_folder folder;
  const std::string path = folder.file("log");
};

// Behind the timestamp stands "|1234|vemk-main> text 5 of seven\n".
TEST_F(ZandorLogTest, PrefixAndTextAreOneLine) {
  EXPECT_EQ(logged_by([] {
              zandor_log_msg_timed("|%d|%s> ", 1234, "vemk-main");
              finish_line("text %d of %s\n", 5, "seven");
            }),
            "|1234|vemk-main> text 5 of seven\n");
}

// A line begins as "2026-11-20 22:14:11.042|" does, with the present local time.
TEST_F(ZandorLogTest, TheTimestampIsTheLocalTimeWithMilliseconds) {
  const time_t before = time(nullptr);
  const child_result_t result = run_in_child([] {
    start_log_to("");
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
  EXPECT_EQ(logged_by([] {
              zandor_log_msg_timed("%s", "{} %n {0}");
              finish_line(" {:x} %%d %s {\n", "%s%n{}");
            }),
            "{} %n {0} {:x} %d %s%n{} {\n");
}

// A message of 1,048,576 characters is one line behind its prefix.
TEST_F(ZandorLogTest, ALineOfAMebibyteComesOutWhole) {
  const std::string line = std::string(1024 * 1024, 'x') + "\n";
  EXPECT_TRUE(logged_by([&line] { log_text(line.c_str()); }) == "|7|case> " + line);
}

// A message without "\n", an empty one too, still ends its line, and one with it has no second.
TEST_F(ZandorLogTest, AMissingLineEndIsAdded) {
  EXPECT_EQ(logged_by([] {
              for (const char *text : {"without", "with\n", ""})
                log_text(text);
            }),
            "|7|case> without\n|7|case> with\n|7|case> \n");
}

// Of "kept\0gone\n" the line has "kept" and a line end.
TEST_F(ZandorLogTest, AMessageCutByANulByteStillEndsItsLine) {
  EXPECT_EQ(logged_by([] {
              zandor_log_msg_timed("%s", "prefix ");
              finish_line("kept%cgone\n", '\0');
            }),
            "prefix kept\n");
}

// Two threads that begin lines before either ends its own get "other thread" and "main thread".
TEST_F(ZandorLogTest, EachThreadFinishesTheLineItBegan) {
  const std::string logged = logged_by([] {
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
  EXPECT_EQ(logged, "other thread\nmain thread\n");
}

// A second beginning writes the first as a line; an end without a beginning is a line too.
TEST_F(ZandorLogTest, ABeginningThatIsNeverFinishedBecomesALine) {
  EXPECT_EQ(logged_by([] {
              zandor_log_msg_timed("%s", "first ");
              zandor_log_msg_timed("%s", "second ");
              finish_line("end\n");
              finish_line("no beginning\n");
            }),
            "first \nsecond end\nno beginning\n");
}

// Without init_zandor_logrotate the line goes to standard error.
TEST_F(ZandorLogTest, WorksWithoutInitialisation) {
  EXPECT_EQ(said_by([] {
              unsetenv("ZANDOR_LOG_FILE");
              log_text("early\n");
            }),
            "|7|case> early\n");
}

// With ZANDOR_LOG_FILE set the line is in that file and standard error stays empty.
TEST_F(ZandorLogTest, TheFileReceivesTheLinesInsteadOfStandardError) {
  EXPECT_EQ(said_by([this] {
              start_log_to(path);
              log_text("filed\n");
            }),
            "");
  EXPECT_EQ(filed(), "|7|case> filed\n");
}

// One note with the reason, then the lines; once the folder exists they go to the file.
TEST_F(ZandorLogTest, LinesGoToStandardErrorWhileTheFileCannotBeOpened) {
  const std::string late = folder.file("late");
  EXPECT_THAT(said_by([&late] {
                start_log_to(late + "/log");
                log_text("one\n");
                log_text("two\n");
                mkdir(late.c_str(), 0700);
                log_text("three\n");
              }),
              MatchesRegex("vemk: cannot open the log file " + late +
                           "/log: No such file or directory; [^\n]*\n"
                           "[|]7[|]case> one\n[|]7[|]case> two\n"));
  EXPECT_EQ(filed("late/log"), "|7|case> three\n");
}

// One note for each reason that follows another: a mode of 0666, then a symbolic link.
TEST_F(ZandorLogTest, FileThatMayNotBeTrustedIsNamedWithItsReason) {
  ASSERT_EQ(chmod(folder.write("log", "").c_str(), 0666), 0);
  const std::string note = "vemk: cannot open the log file " + path + ": ";
  EXPECT_EQ(said_by([this] {
              start_log_to(path);
              log_text("one\n");
              log_text("two\n");
              unlink(path.c_str());
              if (symlink("/dev/null", path.c_str()) == 0)
                log_text("three\n");
            }),
            note + "others may write it (mode 0666); logging to standard error until it can\n" +
                "|7|case> one\n|7|case> two\n" + note +
                "it is a symbolic link; logging to standard error until it can\n|7|case> three\n");
  EXPECT_EQ(filed(), "");
}

// With /dev/full as the file the lines are lost, nothing is said and the status is 0.
TEST_F(ZandorLogTest, AFullDiskDoesNotStopTheProgram) {
  EXPECT_EQ(said_by([] {
              start_log_to("/dev/full");
              log_text("lost\n");
              log_text("lost\n");
            }),
            "");
}

// A file opened after the start gets a descriptor above 2 and no log line.
TEST_F(ZandorLogTest, AClosedStandardErrorNeverBecomesSomebodyElsesDescriptor) {
  said_by([this] {
    close(STDERR_FILENO);
    start_log_to("");
    const int later = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    log_text("lost\n");
    _exit(later > STDERR_FILENO ? 0 : 1);
  });
  EXPECT_EQ(filed(), "");
}

// A handler for SIGPIPE from before the start is not replaced by SIG_IGN.
TEST_F(ZandorLogTest, AHandlerOfBrokenPipesThatTheProgramSetStays) {
  said_by([] {
    (void)std::signal(SIGPIPE, [](int) {});
    start_log_to("");
    struct sigaction current {};
    sigaction(SIGPIPE, nullptr, &current);
    _exit(current.sa_handler == SIG_IGN ? 1 : 0);
  });
}

// In 20 rounds exit(0) beside a thread that logs ends with status 0 and no complaint.
TEST_F(ZandorLogTest, ExitOnOneThreadLeavesALoggingThreadUnharmed) {
  for (int round = 0; round < 20; round++) {
    SCOPED_TRACE(round);
    const std::string said = said_by([this] {
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
    ASSERT_EQ(said, "");
  }
}

} // namespace
} // namespace vemk
