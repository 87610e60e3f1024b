// The real program against a module in this process.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "fake_module.h"
#include "fakes/temporary_folder.h"
#include "program_run.h"
#include "support/status_texts.h"

namespace vemk {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::vector<std::string> silence(const std::string &) {
  return {};
}
std::vector<std::string> echo(const std::string &message) {
  return {message};
}

class VemkctlProgramTest : public ::testing::Test {
protected:
  VemkctlProgramTest() { setenv("MODULE_BUS_DIR", bus.c_str(), 1); }
  ~VemkctlProgramTest() override { unsetenv("MODULE_BUS_DIR"); }

  /// Of a run that says one thing at most and prints this.
  void expect_end(const std::vector<std::string> &arguments, int status,
                  const testing::Matcher<std::string> &note, const std::string &output = "") const {
    program_run run(folder, arguments);
    EXPECT_THAT(run.next_note(), note);
    EXPECT_EQ(run.next_note(), "");
    EXPECT_EQ(run.exit_status(), status) << arguments.front();
    EXPECT_EQ(run.output(), output);
  }

  /// "vemkctl: module 2 in ...".
  std::string module_2(const std::string &before, const std::string &after) const {
    return "vemkctl: " + before + "module 2 in " + bus + after;
  }

  /// As a module leaves it behind.
  void make_bus_folder() const { ASSERT_EQ(mkdir(bus.c_str(), 0700), 0); }

  /// What the module gets from one run that has to succeed.
  std::vector<std::string> sent(const std::vector<std::string> &arguments,
                                const std::string &input = "") {
    fake_module module(silence);
    program_run run(folder, arguments, input);
    EXPECT_EQ(run.exit_status(), 0);
    EXPECT_EQ(run.next_note(), "");
    module.stop();
    return module.messages;
  }

  /// What a listener prints of one message.
  std::string printed(const std::string &format, const std::string &message) {
    fake_module module(echo);
    program_run listener(folder, {"listen", "--count", "1", "--format", format});
    EXPECT_EQ(listener.next_note(), module_2("listening to ", ""));
    EXPECT_EQ(program_run(folder, {"send", "-"}, message).exit_status(), 0);
    EXPECT_EQ(listener.exit_status(), 0);
    return listener.output();
  }

  const temporary_folder temporary;
  const std::string folder = temporary.path();
  const std::string bus = temporary.file("bus");
};

// A text with a line feed is one message; the empty text is one of 0 bytes.
TEST_F(VemkctlProgramTest, SendSendsATextAsOneMessage) {
  EXPECT_THAT(sent({"send", "two\nlines"}), ElementsAre("two\nlines"));
  EXPECT_THAT(sent({"send", ""}), ElementsAre(""));
}

// "-" sends NUL, line feeds and 300,000 bytes as one message.
TEST_F(VemkctlProgramTest, SendTakesTheWholeOfStandardInputAsOneMessage) {
  const std::string bytes("a\0b\nc\xff\n", 7);
  EXPECT_THAT(sent({"send", "-"}, bytes), ElementsAre(bytes));
  const std::string longer(300000, 'x');
  EXPECT_THAT(sent({"send", "-"}, longer), ElementsAre(longer));
}

// --lines sends each line, the empty and the last unfinished one among them.
TEST_F(VemkctlProgramTest, SendTakesALineAsAMessage) {
  EXPECT_THAT(sent({"send", "--lines", "-"}, "one\n\nthree\r\nlast"),
              ElementsAre("one", "", "three\r", "last"));
  EXPECT_THAT(sent({"send", "--lines", "-"}, ""), IsEmpty());
  EXPECT_THAT(sent({"send", "--lines", "one\ntwo"}), ElementsAre("one", "two"));
}

// 20,000 lines have all been taken when the program ends.
TEST_F(VemkctlProgramTest, SendEndsAfterAllOfManyLinesWereTaken) {
  std::string input;
  for (int i = 0; i < 20000; ++i)
    input += "line " + std::to_string(i) + "\n";
  const auto messages = sent({"send", "--lines", "-"}, input);
  ASSERT_EQ(messages.size(), 20000U);
  EXPECT_EQ(messages.back(), "line 19999");
}

// One byte more than 64 MiB: "send it in parts" and status 4.
TEST_F(VemkctlProgramTest, SendRefusesWhatIsLongerThan64Mebibytes) {
  program_run run(folder, {"send", "-"}, std::string(64 * 1024 * 1024 + 1, 'x'));
  EXPECT_EQ(run.next_note(), "vemkctl: the message is longer than 64 MiB; send it in parts");
  EXPECT_EQ(run.exit_status(), 4);
}

// "did not take it in time" with module and folder, and status 3.
TEST_F(VemkctlProgramTest, SendSaysSoWhenNobodyTakesTheMessage) {
  make_bus_folder();
  expect_end({"send", "--timeout", "0.2", "text"}, 3,
             module_2("", " did not take it in time; see that the module runs and uses this bus "
                          "folder, or name another with --bus DIR or MODULE_BUS_DIR"));
}

// Each says in time that the folder is not there, and how to name another; it is not there then.
TEST_F(VemkctlProgramTest, NoCommandMakesTheBusFolder) {
  // `vemkctl status` of another user made that user's folder, and said "no answer" ever after.
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"send", "text"}, 3}, {{"rejoin"}, 3}, {{"listen"}, 2}, {{"status"}, 2}};
  for (auto [command, status] : cases) {
    command.insert(command.end(), {"--timeout", "0.1"});
    expect_end(command, status,
               StartsWith("vemkctl: bus folder " + bus +
                          " is not there; see that the module runs, or name another with "
                          "MODULE_BUS_DIR (vemkctl: --bus)"));
  }
  EXPECT_FALSE(std::filesystem::exists(bus));
  expect_end({"listen", "--quiet", "--timeout", "0.1"}, 2, IsEmpty());
}

// Started before there is a folder, each command does its work once a module has made one.
TEST_F(VemkctlProgramTest, EachCommandWaitsForTheBusFolder) {
  const auto answer = [](const std::string &) {
    return std::vector<std::string>{connected_status};
  };
  program_run listener(folder, {"listen", "--count", "1", "--timeout", "20"});
  EXPECT_THAT(listener.next_note(), EndsWith("; waiting for it"));
  program_run status(folder, {"status"});
  program_run sender(folder, {"send", "text"});
  fake_module module(answer);
  EXPECT_EQ(listener.next_note(), module_2("listening to ", ""));
  EXPECT_EQ(status.exit_status(), 0);
  EXPECT_EQ(sender.exit_status(), 0);
  // The answers to these two may have come before the listener did.
  EXPECT_EQ(program_run(folder, {"send", "again"}).exit_status(), 0);
  EXPECT_EQ(listener.exit_status(), 0);
  module.stop();
  std::filesystem::remove_all(bus);

  program_run rejoin(folder, {"rejoin"});
  fake_module dropped(silence);
  EXPECT_EQ(rejoin.exit_status(), 0);
  dropped.stop();
  EXPECT_TRUE(dropped.dropped);
}

// With mode 0755 listen, status and rejoin end with "chmod 700" and status 3.
TEST_F(VemkctlProgramTest, AFolderThatIsOpenToOthersIsRefused) {
  std::filesystem::create_directory(bus);
  std::filesystem::permissions(bus, std::filesystem::perms(0755));
  for (const char *command : {"listen", "status", "rejoin"})
    expect_end({command}, 3, HasSubstr("close it with chmod 700"));
}

// --bus is used and named, not MODULE_BUS_DIR.
TEST_F(VemkctlProgramTest, TheFolderOnTheCommandLineGoesBeforeTheEnvironment) {
  const std::string other = folder + "/other";
  expect_end({"send", "text", "--timeout", "0.1", "--bus", other}, 3, HasSubstr(other));
}

// The same six bytes as text, hex and JSON; bytes that are no UTF-8 as JSON's "hex".
TEST_F(VemkctlProgramTest, ListenPrintsEachFormat) {
  const std::string bytes("a\0\n\\\xc3\xa4", 6);
  EXPECT_EQ(printed("text", bytes), "a\\x00\\n\\\xc3\xa4\n");
  EXPECT_EQ(printed("hex", bytes), "61000a5cc3a4\n");
  EXPECT_EQ(printed("json", bytes),
            "{\"from\":2,\"length\":6,\"text\":\"a\\u0000\\n\\\\\xc3\xa4\"}\n");
  EXPECT_EQ(printed("json", "\xff"), "{\"from\":2,\"length\":1,\"hex\":\"ff\"}\n");
}

// After 0.3 s without a message: status 2, no output, and no note with --quiet.
TEST_F(VemkctlProgramTest, ListenEndsWithTwoWhenTheTimeIsUp) {
  fake_module module(silence);
  expect_end({"listen", "--timeout", "0.3", "--quiet"}, 2, IsEmpty());
}

// "module 2 in FOLDER was not on the bus" and status 2.
TEST_F(VemkctlProgramTest, ListenSaysThatTheModuleWasNotThere) {
  make_bus_folder();
  expect_end({"listen", "--timeout", "0.2"}, 2, StartsWith(module_2("", " was not on the bus")));
}

// On /dev/full: "cannot write to standard output: No space ..." and status 4.
TEST_F(VemkctlProgramTest, ListenReportsOutputThatCannotBeWritten) {
  fake_module module(echo);
  program_run listener(folder, {"listen"}, "", "/dev/full");
  listener.next_note();
  EXPECT_EQ(program_run(folder, {"send", "text"}).exit_status(), 0);
  EXPECT_THAT(listener.next_note(), StartsWith("vemkctl: cannot write to standard output: No spa"));
  EXPECT_EQ(listener.exit_status(), 4);
}

// SIGINT ends it as a signal does: 130 in a shell.
TEST_F(VemkctlProgramTest, ListenEndsWithASignalInTheDefaultWay) {
  fake_module module(silence);
  program_run listener(folder, {"listen"});
  listener.next_note();
  listener.signal(SIGINT);
  EXPECT_EQ(listener.exit_status(), 130);
}

// It sends the status request; "connected" is status 0, "disconnected" 1.
TEST_F(VemkctlProgramTest, StatusTellsConnectedFromDisconnected) {
  for (const bool is_connected : {true, false}) {
    fake_module module([&](const std::string &) {
      return std::vector<std::string>{is_connected ? connected_status : disconnected_status};
    });
    expect_end({"status"}, is_connected ? 0 : 1, IsEmpty(),
               is_connected ? "connected\n" : "disconnected\n");
    module.stop();
    EXPECT_THAT(module.messages, ElementsAre(status_request));
  }
}

// Traffic, another service and bytes before the answer are passed over.
TEST_F(VemkctlProgramTest, StatusIgnoresEverythingButTheAnswer) {
  fake_module module([](const std::string &) {
    return std::vector<std::string>{"traffic", R"({"service":"other","cmd":"disconnected"})",
                                    std::string("\0\xff", 2), connected_status};
  });
  expect_end({"status"}, 0, IsEmpty(), "connected\n");
}

// A module that does not answer, and none at all: "no answer from module 2" and status 2.
TEST_F(VemkctlProgramTest, StatusEndsWithTwoWithoutAnAnswer) {
  fake_module module(echo);
  const auto note = StartsWith(module_2("no answer from ", ""));
  expect_end({"status", "--timeout", "0.3"}, 2, note);
  module.stop();
  expect_end({"status", "--timeout", "0.2"}, 2, note);
}

// On a terminal a missing folder at once, a module after a second; to a pipe the answer alone.
TEST_F(VemkctlProgramTest, StatusTellsAPersonWhatItWaitsFor) {
  {
    program_run run(folder, {"status", "--timeout", "0.1"}, "", "", error_stream::terminal);
    EXPECT_THAT(run.next_note(),
                AllOf(HasSubstr(bus + " is not there"), EndsWith("; waiting for it")));
    EXPECT_THAT(run.next_note(), HasSubstr(bus + " is not there"));
  }
  make_bus_folder();
  {
    program_run run(folder, {"status", "--timeout", "3"}, "", "", error_stream::terminal);
    EXPECT_EQ(run.next_note(), module_2("waiting for ", " to come onto the bus"));
    EXPECT_THAT(run.next_note(), StartsWith("vemkctl: no answer from module 2"));
  }
  fake_module module([](const std::string &) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    return std::vector<std::string>{connected_status};
  });
  const std::string note =
      module_2("waiting for an answer of ",
               "; it gives none while it tries to connect, for 20 seconds or more");
  for (const auto errors : {error_stream::terminal, error_stream::pipe}) {
    program_run run(folder, {"status"}, "", "", errors);
    EXPECT_EQ(run.next_note(), errors == error_stream::terminal ? note : "");
    EXPECT_EQ(run.next_note(), "");
    EXPECT_EQ(run.output(), "connected\n");
  }
}

// The module's loop flag goes to 0 without a message for it; status 0.
TEST_F(VemkctlProgramTest, RejoinDropsTheModule) {
  fake_module module(silence);
  expect_end({"rejoin"}, 0, IsEmpty());
  module.stop();
  EXPECT_TRUE(module.dropped);
  EXPECT_THAT(module.messages, IsEmpty());
}

// Status 0, 1 and 2 for the verdicts, 4 for /dev/full and /dev/null; the bus is not touched.
TEST_F(VemkctlProgramTest, CheckConfigReportsWithoutABus) {
  const std::string url = "roam_service_url=ws://192.0.2.7:8080/\n";
  const std::string delays = "initial_connection_delay=2\nmax_connection_delay=60\n";
  const std::pair<std::string, int> cases[] = {
      {temporary.write("good", url + delays), 0},
      {temporary.write("odd", url), 1},
      // The daemon's parser would log the scheme.
      {temporary.write("bad", delays + "log_level=15\nroam_service_url=wss://192.0.2.7:8080/\n"),
       2},
  };
  for (const auto &[path, status] : cases) {
    program_run run(folder, {"--bus", folder + "/no/such/folder", "check-config", path});
    EXPECT_EQ(run.next_note(), "");
    EXPECT_EQ(run.exit_status(), status);
    EXPECT_THAT(run.output(), StartsWith(path + ":"));
  }

  program_run full(folder, {"check-config", cases[0].first}, "", "/dev/full");
  EXPECT_EQ(full.exit_status(), 4);
  expect_end({"check-config", "/dev/null"}, 4,
             StartsWith("vemkctl: /dev/null is not a regular file"));
}

// Help on standard output, status 0 or 4 on /dev/full; usage errors on the other, status 64.
TEST_F(VemkctlProgramTest, HelpAndWrongUsageGoWhereTheyBelong) {
  program_run help(folder, {"send", "--help"});
  EXPECT_EQ(help.exit_status(), 0);
  EXPECT_THAT(help.output(), HasSubstr("Usage: vemkctl send"));

  expect_end({"send"}, 64, StartsWith("vemkctl: TEXT is required; see vemkctl --help"));

  program_run full(folder, {"--help"}, "", "/dev/full");
  EXPECT_EQ(full.exit_status(), 4);
}

} // namespace
} // namespace vemk
