#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/websock_cfg.h"
#include "fakes/fake_log.h"
#include "fakes/recorded_levels.h"
#include "fakes/temporary_folder.h"
#include "log/log_module.h"
#include "unit/config/config_texts.h"

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

  void parse(const std::vector<std::string> &options) {
    std::vector<std::string> texts{"vemk"};
    texts.insert(texts.end(), options.begin(), options.end());
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

// Every field of an earlier parsing becomes 0 or "", cfg_mode 3; log_level and g_log_level stay.
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
  cfg.event_pacing = true;
  g_log_level = 6;

  parse({});

  for (const char *field : {cfg.ap_location, cfg.host, cfg.path})
    EXPECT_EQ(std::string(config_text_size, '\0'), std::string(field, config_text_size));
  EXPECT_EQ(url_of(cfg), no_url);
  EXPECT_EQ(settings_of(cfg), "delays 0 0, level 4, ");
  EXPECT_EQ(3, cfg.cfg_mode);
  EXPECT_FALSE(cfg.cfg_file_failed);
  EXPECT_EQ(6u, g_log_level);
}

// -d, -p and -P in any order, also as "-P8080": host, path (no "/" is added), port; not url_valid.
TEST_F(CommandLineTest, OptionsFillHostPathAndPortButNeverMakeTheUrlValid) {
  const std::vector<std::string> forms[] = {{"-d", "example.net", "-p", "roam", "-P", "8080"},
                                            {"-dexample.net", "-proam", "-P8080"},
                                            {"-P", "8080", "-p", "roam", "-d", "example.net"}};
  for (const auto &options : forms) {
    parse(options);
    EXPECT_EQ(url_of(cfg), "not valid example.net 8080 roam");
    EXPECT_FALSE(cfg.cfg_file_failed);
    EXPECT_STREQ("", cfg.ap_location);
  }
}

// Of -d, -p and -P given twice the last value stays, also where it is shorter than the first.
TEST_F(CommandLineTest, LaterOptionReplacesAnEarlierOne) {
  parse({"-d", "a-long-name.example.net", "-p", "/first", "-P", "1", "-d", "b", "-p", "/2", "-P",
         "2"});
  EXPECT_EQ(url_of(cfg), "not valid b 2 /2");
}

// Of 256 and 257 bytes the first 255 stay; 255 bytes stay whole.
TEST_F(CommandLineTest, HostAndPathAreCutAfter255Bytes) {
  const std::string longest(255, 'h');
  for (const auto &[host, path] : {std::pair(longest + "x", longest + "yy"), {longest, longest}}) {
    parse({"-d", host, "-p", path});
    EXPECT_EQ(longest, cfg.host);
    EXPECT_EQ(longest, cfg.path);
  }
}

// "80x" is 80, "x" and "" are 0, "-5" is -5, numbers beyond 32 bits the largest or smallest.
TEST_F(CommandLineTest, PortIsReadAsAtoiDoes) {
  const std::pair<const char *, std::int32_t> cases[] = {
      {"80x", 80},      {"x", 0},   {"", 0},
      {"70000", 70000}, {"-5", -5}, {"99999999999999999999", 2147483647}};
  for (const auto &[text, port] : cases) {
    parse({"-P", text});
    EXPECT_EQ(port, cfg.port) << text;
  }
}

// With -f in front of -d, -p and -P the file's URL still replaces all three and is valid.
TEST_F(CommandLineTest, FileIsReadAfterAllOptions) {
  const std::string name = file("roam_service_url=ws://192.0.2.7:8080/roam\n");
  parse({"-f", name, "-d", "other", "-p", "/other", "-P", "1"});
  EXPECT_EQ(url_of(cfg), "192.0.2.7 8080 /roam");
  EXPECT_FALSE(cfg.cfg_file_failed);
  EXPECT_EQ(3, cfg.cfg_mode);
}

// -d, -p and -P stay; the file gives "default-domain" and log level 8; url_valid stays false.
TEST_F(CommandLineTest, FileWithoutAUrlLeavesTheOptionsInPlace) {
  parse({"-d", "other", "-p", "/other", "-P", "1", "-f", file("log_level=8\n")});
  EXPECT_EQ(url_of(cfg), "not valid other 1 /other");
  EXPECT_EQ(settings_of(cfg), "delays 0 0, level 8, default-domain");
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

// cfg_file_failed, location "default-domain", url_valid false, the log empty; so with -f "".
TEST_F(CommandLineTest, MissingFileIsRememberedWithoutAMessage) {
  for (const std::string &name : {folder.file("absent"), std::string()}) {
    parse({"-f", name});
    EXPECT_TRUE(cfg.cfg_file_failed);
    EXPECT_EQ(url_of(cfg), no_url);
    EXPECT_STREQ("default-domain", cfg.ap_location);
    EXPECT_THAT(fake_log::lines(), IsEmpty());
  }
}

// wss logs "Proto wss is invalid\n", after a file with "log_level=0" too, and sets cfg_file_failed.
// An earlier file's "log_level=" does not outlive the start of the next parsing.
TEST_F(CommandLineTest, WrongSchemeIsRememberedAndParsingOpensEveryCategoryOfItsLogModule) {
  parse({"-f", file("log_level=0\nroam_service_url=wss://h:1/p\n")});
  ASSERT_THAT(fake_log::lines(), IsEmpty());
  parse({"-f", file("roam_service_url=wss://h:1/p\n")});
  EXPECT_TRUE(cfg.cfg_file_failed);
  EXPECT_EQ(url_of(cfg), no_url);
  EXPECT_THAT(fake_log::lines(), ElementsAre(refusal("wss")));
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
  EXPECT_EQ(url_of(cfg), "not valid host 80 ");
}

// -x, --help, -h, -F, and -f, -d, -p and -P without a value end with exit(-1) and getopt's line.
TEST_F(CommandLineDeathTest, BadOptionsAndMissingArgumentsEndTheProcessWithStatus255) {
  for (const char *option : {"-x", "--help", "-h", "-F", "-f", "-d", "-p", "-P"})
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
