#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/websock_cfg.h"
#include "fakes/fake_log.h"
#include "fakes/recorded_levels.h"
#include "fakes/temporary_folder.h"
#include "log/log_module.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class command_line_fixture : public testing::Test {
protected:
  command_line_fixture() {
    g_log_level = 0;
    fake_log::clear();
    recorded_levels::levels.clear();
  }

  ~command_line_fixture() override { g_log_level = 0; }

  void parse(std::initializer_list<std::string> options) {
    std::vector<std::string> texts{"vemk"};
    texts.insert(texts.end(), options);
    std::vector<char *> arguments;
    for (std::string &text : texts)
      arguments.push_back(text.data());
    arguments.push_back(nullptr);
    // As an earlier parsing leaves it.
    optind = static_cast<int>(texts.size());
    parse_command_line(cfg, static_cast<int>(texts.size()), arguments.data());
  }

  websock_cfg_t cfg{};
};

class CommandLineTest : public command_line_fixture {
protected:
  std::string file(const std::string &text) { return folder.write("vemk.conf", text); }

  temporary_folder folder;
};

class CommandLineDeathTest : public command_line_fixture {
protected:
  CommandLineDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  /// What the child writes on standard error: the C library's complaint alone.
  const testing::Matcher<const std::string &> only_getopts_line =
      testing::MatchesRegex("vemk: [^\n]*\n");
};

} // namespace

// Every field becomes 0 or "", cfg_mode 3; log_level stays 4 and g_log_level 6.
TEST_F(CommandLineTest, NoOptionsClearTheRecordButNotItsLogLevel) {
  for (char *field : {cfg.ap_location, cfg.host, cfg.path})
    std::string(config_text_size - 1, 'x').copy(field, config_text_size - 1);
  cfg.port = 1;
  cfg.url_valid = true;
  cfg.initial_connection_delay = 2;
  cfg.max_connection_delay = 3;
  cfg.log_level = 4;
  cfg.cfg_mode = 5;
  cfg.cfg_file_failed = true;
  cfg.whole_messages = true;
  g_log_level = 6;

  parse({});

  for (const char *field : {cfg.ap_location, cfg.host, cfg.path})
    EXPECT_EQ(std::string(config_text_size, '\0'), std::string(field, config_text_size));
  EXPECT_EQ(0, cfg.port);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_EQ(0u, cfg.initial_connection_delay);
  EXPECT_EQ(0u, cfg.max_connection_delay);
  EXPECT_EQ(4u, cfg.log_level);
  EXPECT_EQ(3, cfg.cfg_mode);
  EXPECT_FALSE(cfg.cfg_file_failed);
  EXPECT_FALSE(cfg.whole_messages);
  EXPECT_EQ(6u, g_log_level);
}

// -d, -p and -P set host, path (no "/" is added) and port 8080; url_valid stays false.
TEST_F(CommandLineTest, OptionsFillHostPathAndPortButNeverMakeTheUrlValid) {
  parse({"-d", "example.net", "-p", "roam", "-P", "8080"});
  EXPECT_STREQ("example.net", cfg.host);
  EXPECT_STREQ("roam", cfg.path);
  EXPECT_EQ(8080, cfg.port);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_FALSE(cfg.cfg_file_failed);
  EXPECT_STREQ("", cfg.ap_location);
}

// In the order -P, -p, -d each option fills its own field, too.
TEST_F(CommandLineTest, OptionsMayComeInAnyOrder) {
  parse({"-P", "8080", "-p", "/roam", "-d", "192.0.2.7"});
  EXPECT_STREQ("192.0.2.7", cfg.host);
  EXPECT_STREQ("/roam", cfg.path);
  EXPECT_EQ(8080, cfg.port);
}

// "-dexample.net -p/roam -P8080" means the same as with blanks.
TEST_F(CommandLineTest, ValuesMayBeAttachedToTheirOptions) {
  parse({"-dexample.net", "-p/roam", "-P8080"});
  EXPECT_STREQ("example.net", cfg.host);
  EXPECT_STREQ("/roam", cfg.path);
  EXPECT_EQ(8080, cfg.port);
}

// Of -d, -p and -P given twice the last value stays, also where it is shorter than the first.
TEST_F(CommandLineTest, LaterOptionReplacesAnEarlierOne) {
  parse({"-d", "a-long-name.example.net", "-p", "/first", "-P", "1", "-d", "b", "-p", "/2", "-P",
         "2"});
  EXPECT_STREQ("b", cfg.host);
  EXPECT_STREQ("/2", cfg.path);
  EXPECT_EQ(2, cfg.port);
}

// Of 256 and 257 bytes the first 255 stay; 255 bytes stay whole.
TEST_F(CommandLineTest, HostAndPathAreCutAfter255Bytes) {
  const std::string longest(255, 'h');
  parse({"-d", longest + "x", "-p", longest + "yy"});
  EXPECT_EQ(longest, cfg.host);
  EXPECT_EQ(longest, cfg.path);
  parse({"-d", longest, "-p", longest});
  EXPECT_EQ(longest, cfg.host);
  EXPECT_EQ(longest, cfg.path);
}

// "80x" is 80, "x" and "" are 0, "-5" is -5, numbers beyond 32 bits the largest or smallest.
TEST_F(CommandLineTest, PortIsReadAsAtoiDoes) {
  const struct {
    const char *text;
    std::int32_t port;
  } cases[] = {{"8080", 8080},
               {"80x", 80},
               {"x", 0},
               {"", 0},
               {"-5", -5},
               {"70000", 70000},
               {"2147483647", 2147483647},
               {"2147483648", 2147483647},
               {"99999999999999999999", 2147483647},
               {"-99999999999999999999", -2147483647 - 1}};
  for (const auto &expected : cases) {
    parse({"-P", expected.text});
    EXPECT_EQ(expected.port, cfg.port) << expected.text;
  }
}

// With -f in front of -d, -p and -P the file's URL still replaces all three and is valid.
TEST_F(CommandLineTest, FileIsReadAfterAllOptions) {
  const std::string name = file("roam_service_url=ws://192.0.2.7:8080/roam\n");
  parse({"-f", name, "-d", "other", "-p", "/other", "-P", "1"});
  EXPECT_STREQ("192.0.2.7", cfg.host);
  EXPECT_STREQ("/roam", cfg.path);
  EXPECT_EQ(8080, cfg.port);
  EXPECT_TRUE(cfg.url_valid);
  EXPECT_FALSE(cfg.cfg_file_failed);
  EXPECT_EQ(3, cfg.cfg_mode);
}

// -d, -p and -P stay; the file gives "default-domain" and log level 8; url_valid stays false.
TEST_F(CommandLineTest, FileWithoutAUrlLeavesTheOptionsInPlace) {
  parse({"-d", "other", "-p", "/other", "-P", "1", "-f", file("log_level=8\n")});
  EXPECT_STREQ("other", cfg.host);
  EXPECT_STREQ("/other", cfg.path);
  EXPECT_EQ(1, cfg.port);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_STREQ("default-domain", cfg.ap_location);
  EXPECT_EQ(8u, cfg.log_level);
  EXPECT_EQ(8u, g_log_level);
}

// From level 4 in both, an empty file leaves the record's at 4 and sets g_log_level to 0.
TEST_F(CommandLineTest, FileWithoutALogLevelLeavesTheRecordsLevelAndClearsTheProcessWideOne) {
  cfg.log_level = 4;
  g_log_level = 4;
  parse({"-f", file("")});
  EXPECT_EQ(4u, cfg.log_level);
  EXPECT_EQ(0u, g_log_level);
}

// Of two -f the second is read alone, so a missing first one is no failure.
TEST_F(CommandLineTest, LastNamedFileIsTheOneThatIsRead) {
  const std::string first = folder.write("first", "ap_location=first\nlog_level=1\n");
  const std::string second = folder.write("second", "ap_location=second\n");
  parse({"-f", first, "-f", second});
  EXPECT_STREQ("second", cfg.ap_location);
  EXPECT_EQ(0u, cfg.log_level);
  parse({"-f", folder.file("absent"), "-f", first});
  EXPECT_STREQ("first", cfg.ap_location);
  EXPECT_FALSE(cfg.cfg_file_failed);
}

// cfg_file_failed is set, the location is "default-domain", url_valid false, the log empty.
TEST_F(CommandLineTest, MissingFileIsRememberedWithoutAMessage) {
  parse({"-f", folder.file("absent")});
  EXPECT_TRUE(cfg.cfg_file_failed);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_STREQ("default-domain", cfg.ap_location);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// -f "" sets cfg_file_failed.
TEST_F(CommandLineTest, EmptyFileNameIsAMissingFile) {
  parse({"-f", ""});
  EXPECT_TRUE(cfg.cfg_file_failed);
}

// wss logs "|PID|websock-cfg> Proto wss is invalid\n" and sets cfg_file_failed.
TEST_F(CommandLineTest, WrongSchemeIsRemembered) {
  parse({"-f", file("roam_service_url=wss://192.0.2.7:8080/roam\n")});
  EXPECT_TRUE(cfg.cfg_file_failed);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_THAT(fake_log::lines(),
              ElementsAre("|" + std::to_string(getpid()) + "|websock-cfg> Proto wss is invalid\n"));
}

// After a file with "log_level=0" the next parsing logs "Proto wss is invalid\n" again.
// An earlier file's "log_level=" does not outlive the start of the next parsing.
TEST_F(CommandLineTest, ParsingOpensEveryCategoryOfItsLogModule) {
  parse({"-f", file("log_level=0\nroam_service_url=wss://h:1/p\n")});
  ASSERT_THAT(fake_log::lines(), IsEmpty());
  parse({"-f", file("roam_service_url=wss://h:1/p\n")});
  EXPECT_THAT(fake_log::lines(),
              ElementsAre("|" + std::to_string(getpid()) + "|websock-cfg> Proto wss is invalid\n"));
}

// Without a file "websock-cfg" gets the one mask 0xFFFF and keeps it, whatever g_log_level is.
TEST_F(CommandLineTest, ParsingGivesItsLogModuleTheMaskOfAllBits) {
  g_log_level = 1;
  parse({"-d", "host"});
  EXPECT_THAT(recorded_levels::levels(), ElementsAre("websock-cfg 65535"));
}

// 0xFFFF comes first, before any option; then each "log_level=" line's value, in their order.
TEST_F(CommandLineTest, EveryLogLevelLineGivesItsValueToTheLogModule) {
  parse({"-f", file("log_level=8\nap_location=x\nlog_level=0x13\nlog_level=\n")});
  EXPECT_THAT(recorded_levels::levels(),
              ElementsAre("websock-cfg 65535", "websock-cfg 8", "websock-cfg 19", "websock-cfg 0"));
}

// A word behind the options, and whatever follows "--", "-x" as well, is neither an error nor read.
TEST_F(CommandLineTest, WordsBehindTheOptionsAreIgnored) {
  parse({"-d", "first", "word"});
  EXPECT_STREQ("first", cfg.host);
  parse({"-d", "host", "-P", "80", "--", "-x", "-p", "/path"});
  EXPECT_STREQ("host", cfg.host);
  EXPECT_EQ(80, cfg.port);
  EXPECT_STREQ("", cfg.path);
}

// URL, delay and url_valid of the first parsing are gone after a second one with -P alone.
TEST_F(CommandLineTest, SecondParsingStartsFromTheRecordAsTheFirstDid) {
  parse({"-f", file("roam_service_url=ws://h:1/p\ninitial_connection_delay=5\n")});
  ASSERT_TRUE(cfg.url_valid);
  parse({"-P", "7"});
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_STREQ("", cfg.host);
  EXPECT_EQ(7, cfg.port);
  EXPECT_EQ(0u, cfg.initial_connection_delay);
}

// -x, --help, -h and -F end with exit(-1); standard error has getopt's line and no other.
TEST_F(CommandLineDeathTest, BadOptionsEndTheProcessWithStatus255) {
  EXPECT_EXIT(parse({"-x"}), testing::ExitedWithCode(255), only_getopts_line);
  EXPECT_EXIT(parse({"--help"}), testing::ExitedWithCode(255), only_getopts_line);
  EXPECT_EXIT(parse({"-h"}), testing::ExitedWithCode(255), only_getopts_line);
  EXPECT_EXIT(parse({"-F", "file"}), testing::ExitedWithCode(255), only_getopts_line);
}

// -f, -d, -p and -P without a value end with exit(-1) and getopt's line.
TEST_F(CommandLineDeathTest, MissingArgumentsEndTheProcessWithStatus255) {
  for (const char *option : {"-f", "-d", "-p", "-P"})
    EXPECT_EXIT(parse({option}), testing::ExitedWithCode(255), only_getopts_line) << option;
}

// "-f FILE -x" ends with status 255 before FILE's refused URL is logged.
TEST_F(CommandLineDeathTest, FileIsNotReadWhenALaterOptionIsBad) {
  // Static, so that exit() removes it in the child too.
  static const temporary_folder folder;
  const std::string name = folder.write("vemk.conf", "roam_service_url=wss://h:1/p\n");
  EXPECT_EXIT(
      {
        atexit([] {
          for (const std::string &line : fake_log::lines())
            fputs(line.c_str(), stderr);
        });
        parse({"-f", name, "-x"});
      },
      testing::ExitedWithCode(255), only_getopts_line);
}

} // namespace vemk
