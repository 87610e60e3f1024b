#include <cstring>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/websock_cfg.h"
#include "fakes/fake_log.h"
#include "fakes/temporary_folder.h"
#include "log/log_module.h"
#include "unit/config/config_texts.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using namespace std::string_literals;

constexpr std::uint32_t largest = 4294967295u;

class ConfigFileTest : public testing::Test {
protected:
  ConfigFileTest() {
    char program[] = "vemk";
    char *arguments[] = {program, nullptr};
    parse_command_line(cfg, 1, arguments);
    g_log_level = 0;
    fake_log::clear();
  }

  ~ConfigFileTest() override { g_log_level = 0; }

  bool read(const std::string &text) {
    return read_config_file(cfg, folder.write("vemk.conf", text).c_str());
  }

  /// Reads the text into a record that held nothing before.
  websock_cfg_t read_fresh(const std::string &text) {
    cfg = websock_cfg_t{};
    EXPECT_TRUE(read(text)) << text;
    return cfg;
  }

  std::string url_from(const std::string &value) {
    return url_of(read_fresh("roam_service_url=" + value + "\n"));
  }

  std::string location_from(const std::string &value) {
    return read_fresh("ap_location=" + value).ap_location;
  }

  temporary_folder folder;
  websock_cfg_t cfg{};
};

} // namespace

// The location is "default-domain" and g_log_level 0 instead of 15; all else stays empty.
TEST_F(ConfigFileTest, EmptyFileGivesTheDefaultLocationOnly) {
  g_log_level = 15;
  EXPECT_TRUE(read(""));
  EXPECT_EQ(settings_of(cfg), no_settings);
  EXPECT_EQ(url_of(cfg), no_url);
  EXPECT_EQ(g_log_level, 0u);
}

// Each value arrives; a second file without keys changes the location and g_log_level only.
TEST_F(ConfigFileTest, EveryKeyIsStoredAndKeptByAFileWithoutIt) {
  EXPECT_TRUE(read("# a comment\n"
                   "\n"
                   "roam_service_url=ws://192.0.2.7:8080/roam\n"
                   "initial_connection_delay=5\n"
                   "max_connection_delay=300\n"
                   "ap_location=floor 3, west\n"
                   "log_level=9\n"
                   "whole_messages=1\n"
                   "pacing=event\n"));
  EXPECT_EQ(url_of(cfg), "192.0.2.7 8080 /roam");
  EXPECT_EQ(settings_of(cfg), "delays 5 300, level 9, whole messages, event, floor 3, west");
  EXPECT_EQ(g_log_level, 9u);
  ASSERT_TRUE(read("unknown=1\n"));
  EXPECT_EQ(url_of(cfg), "192.0.2.7 8080 /roam");
  EXPECT_EQ(settings_of(cfg), "delays 5 300, level 9, whole messages, event, default-domain");
  EXPECT_EQ(g_log_level, 0u);
}

// It returns false with "default-domain" and g_log_level 0 set before, and logs nothing.
TEST_F(ConfigFileTest, MissingFileFailsSilentlyWithTheDefaultsInPlace) {
  g_log_level = 15;
  EXPECT_FALSE(read_config_file(cfg, folder.file("absent").c_str()));
  EXPECT_EQ(settings_of(cfg), no_settings);
  EXPECT_EQ(url_of(cfg), no_url);
  EXPECT_EQ(g_log_level, 0u);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// A folder can be opened, so it returns true with the defaults and logs nothing.
TEST_F(ConfigFileTest, FolderReadsAsAFileWithoutLines) {
  EXPECT_TRUE(read_config_file(cfg, folder.path().c_str()));
  EXPECT_EQ(settings_of(cfg), no_settings);
  EXPECT_EQ(url_of(cfg), no_url);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// ws://192.0.2.7:8080/roam, 192.0.2.7:8080/ and odd ones: host, port and "/"-path, url_valid set.
TEST_F(ConfigFileTest, CompleteUrlsAreValid) {
  const std::pair<const char *, const char *> cases[] = {
      {"ws://192.0.2.7:8080/roam", "192.0.2.7 8080 /roam"},
      {"192.0.2.7:8080/", "192.0.2.7 8080 /"},
      {"ws://:/", " 0 /"},
      {"host:80/a/b?c=d:e#f", "host 80 /a/b?c=d:e#f"},
      {"host:80//", "host 80 //"},
      {"host:80:81/p", "host 80 /p"},
      {"host:x/p", "host 0 /p"},
      {"host:-5/p", "host -5 /p"},
      {"host:65536/p", "host 65536 /p"},
      {"host:2147483648/p", "host 2147483647 /p"},
      {"ws://host/a:80/b", "host/a 80 /b"},
      {" host:80/p ", " host 80 /p "},
      {"ws:/host:80/p", "ws 0 /host:80/p"},
      {"host%n:80/%s%n", "host%n 80 /%s%n"},
  };
  for (const auto &[value, url] : cases)
    EXPECT_EQ(url_from(value), url);
}

// Without ":", or without "/" behind the port, host, port, path and url_valid stay unset.
TEST_F(ConfigFileTest, IncompleteUrlsAreNotValid) {
  for (const char *value : {"", "host", "ws://host", "ws://host:80", "host:80", "ws://host/roam",
                            "host/roam", "ws://", "ws://:", "/", "80"})
    EXPECT_EQ(url_from(value), no_url) << value;
}

// After ws://first:1/a two incomplete URLs change none of the four fields.
TEST_F(ConfigFileTest, IncompleteUrlLeavesAnEarlierOneInPlace) {
  EXPECT_EQ(url_from("ws://first:1/a\n"
                     "roam_service_url=ws://second:2\n"
                     "roam_service_url=ws://third/c"),
            "first 1 /a");
}

// "ho\nst" and "/pa\rth" from before become "ho" and "/pa" at any URL line.
TEST_F(ConfigFileTest, IncompleteUrlStillCutsHostAndPathAtTheirLineEnds) {
  strcpy(cfg.host, "ho\nst");
  strcpy(cfg.path, "/pa\rth");
  EXPECT_TRUE(read("roam_service_url=incomplete\n"));
  EXPECT_EQ(url_of(cfg), "not valid ho 0 /pa");
}

// In "h\rx:80/p" a CR ends the host alone.
TEST_F(ConfigFileTest, CarriageReturnEndsTheHost) {
  EXPECT_EQ(url_from("h\rx:80/p"), "h 80 /p");
}

// LF, CR LF, CR, CR CR LF and none at all give the same path, location and numbers.
TEST_F(ConfigFileTest, LineEndsBelongToNoValue) {
  for (const char *line_end : {"\n", "\r\n", "\r", "", "\r\r\n"}) {
    const std::string end = line_end;
    EXPECT_STREQ("/p", read_fresh("roam_service_url=h:80/p" + end).path);
    EXPECT_STREQ("/", read_fresh("roam_service_url=h:80/" + end).path);
    EXPECT_EQ("floor 3", location_from("floor 3" + end));
    EXPECT_EQ(7u, read_fresh("initial_connection_delay=7" + end).initial_connection_delay);
    EXPECT_EQ(7u, read_fresh("max_connection_delay=7" + end).max_connection_delay);
    EXPECT_EQ(7u, read_fresh("log_level=7" + end).log_level);
    EXPECT_EQ(7u, read_fresh("log_level=0x7" + end).log_level);
  }
}

// wss, http, WS, "" and "%n%s" return false and log "|PID|websock-cfg> Proto %s is invalid\n".
TEST_F(ConfigFileTest, SchemesOtherThanWsAreRefused) {
  for (const char *scheme :
       {"wss", "http", "WS", "Ws", " ws", "ws ", "", "wsx", "w", "h:1/ws", "%n%s"}) {
    fake_log::clear();
    EXPECT_FALSE(read("roam_service_url=" + std::string(scheme) + "://host:80/p\n")) << scheme;
    EXPECT_THAT(fake_log::lines(), ElementsAre(refusal(scheme)));
    EXPECT_EQ(url_of(cfg), no_url) << scheme;
  }
}

// The ws URL and delay before the wss line stay; the delay and location behind it are unread.
TEST_F(ConfigFileTest, WrongSchemeStopsTheReadingAndKeepsWhatStoodBefore) {
  EXPECT_FALSE(read("roam_service_url=ws://host:80/p\n"
                    "initial_connection_delay=5\n"
                    "roam_service_url=wss://other:81/q\n"
                    "max_connection_delay=6\n"
                    "ap_location=there\n"));
  EXPECT_EQ(url_of(cfg), "host 80 /p");
  EXPECT_EQ(settings_of(cfg), "delays 5 0, level 0, default-domain");
}

// Levels with bit 0x08 (8, 15, 0x0F, 0xFFFF, 24) log the refusal; 0, 7, 0x, 16 and "" do not.
TEST_F(ConfigFileTest, LogLevelBeforeTheUrlDecidesAboutTheRefusalsLine) {
  const auto logged_with = [this](const std::string &level) {
    fake_log::clear();
    EXPECT_FALSE(read("log_level=" + level + "\nroam_service_url=wss://h:1/p\n"));
    return fake_log::lines();
  };
  for (const char *level : {"8", "15", "0x0F", "0xFFFF", "24"})
    EXPECT_THAT(logged_with(level), ElementsAre(refusal("wss"))) << level;
  for (const char *level : {"0", "7", "0x", "16", ""})
    EXPECT_THAT(logged_with(level), IsEmpty()) << level;
}

// The refusal is logged although g_log_level is 0, and "log_level=0" comes after the wss line.
TEST_F(ConfigFileTest, ModuleKeepsItsMaskWithoutALogLevelLineBeforeTheUrl) {
  g_log_level = 0;
  EXPECT_FALSE(read("ap_location=x\nroam_service_url=wss://h:1/p\nlog_level=0\n"));
  EXPECT_THAT(fake_log::lines(), ElementsAre(refusal("wss")));
}

// All seven keys in upper or mixed case are read; the values keep their case.
TEST_F(ConfigFileTest, KeysIgnoreCase) {
  const websock_cfg_t got = read_fresh("ROAM_SERVICE_URL=H:80/P\n"
                                       "Initial_Connection_Delay=1\n"
                                       "MAX_CONNECTION_DELAY=2\n"
                                       "AP_Location=Here\n"
                                       "LOG_level=3\n"
                                       "Whole_Messages=1\n"
                                       "Pacing=event\n");
  EXPECT_EQ(url_of(got), "H 80 /P");
  EXPECT_EQ(settings_of(got), "delays 1 2, level 3, whole messages, event, Here");
}

// A blank or "#" before the key, a blank before "=" or another key: nothing is set.
TEST_F(ConfigFileTest, LinesThatMatchNoKeyAreIgnored) {
  for (const char *line :
       {" roam_service_url=h:80/p", "\troam_service_url=h:80/p", "#roam_service_url=h:80/p",
        "roam_service_url =h:80/p", "roam_service_url", "roam_service_ur=h:80/p", "[section]", "=",
        "", "xroam_service_url=h:80/p"}) {
    const websock_cfg_t got = read_fresh(std::string(line) + "\n");
    EXPECT_EQ(url_of(got), no_url) << line;
    EXPECT_EQ(settings_of(got), no_settings) << line;
  }
}

// Each of the seven keys on two lines takes the second value, also where that is empty.
TEST_F(ConfigFileTest, LastLineOfAKeyCounts) {
  const websock_cfg_t got = read_fresh("roam_service_url=a:1/a\nroam_service_url=b:2/b\n"
                                       "initial_connection_delay=1\ninitial_connection_delay=2\n"
                                       "max_connection_delay=3\nmax_connection_delay=\n"
                                       "ap_location=first\nap_location=second\n"
                                       "log_level=1\nlog_level=2\n"
                                       "whole_messages=1\nwhole_messages=\n"
                                       "pacing=event\npacing=\n");
  EXPECT_EQ(url_of(got), "b 2 /b");
  EXPECT_EQ(settings_of(got), "delays 2 0, level 2, second");
  EXPECT_EQ(g_log_level, 2u);
}

// "010" is 10, "0x10" 0, "5s" 5, "" 0, "-1" and all beyond 32 bits 4294967295.
TEST_F(ConfigFileTest, DelaysAreDecimal) {
  const std::pair<std::string, std::uint32_t> cases[] = {
      {"010", 10}, {"0x10", 0}, {"5s", 5}, {"", 0}, {"4294967296", largest}, {"-1", largest}};
  for (const auto &[value, delay] : cases) {
    SCOPED_TRACE(value);
    EXPECT_EQ(delay, read_fresh("initial_connection_delay=" + value).initial_connection_delay);
    EXPECT_EQ(delay, read_fresh("max_connection_delay=" + value).max_connection_delay);
  }
}

// 15, 015, 0x0F and 0X0f are the same; "0x" is 0, "F" is 0, "0x8Z" is 8.
TEST_F(ConfigFileTest, LogLevelIsDecimalOrHexadecimal) {
  const std::pair<const char *, std::uint32_t> cases[] = {
      {"15", 15}, {"015", 15}, {"0x0F", 15}, {"0X0f", 15},    {"0x", 0},
      {"0xG", 0}, {"0x8Z", 8}, {"0x 8", 8},  {"0x0x8", 8},    {"x8", 0},
      {"F", 0},   {" 0x8", 0}, {"", 0},      {"-1", largest}, {"0x1FFFFFFFF", largest},
  };
  for (const auto &[value, level] : cases) {
    EXPECT_EQ(level, read_fresh("log_level=" + std::string(value) + "\n").log_level) << value;
    EXPECT_EQ(level, g_log_level) << value;
  }
}

// 0 and what has no digits in front are off, every other decimal number is on.
TEST_F(ConfigFileTest, WholeMessagesAreOnForEveryNumberBut0) {
  for (const char *value : {"0", "00", "-0", "", "on", "yes", "true", "a", "0x1", "x1", " 0"})
    EXPECT_FALSE(read_fresh("whole_messages=" + std::string(value) + "\n").whole_messages) << value;
  for (const char *value : {"1", "01", "2", "9", "10", "1x", " 1", "+1", "-1", "4294967296"})
    EXPECT_TRUE(read_fresh("whole_messages=" + std::string(value) + "\n").whole_messages) << value;
}

// "event" in any letter case is on; "steps", blanks around it and every other text are off.
TEST_F(ConfigFileTest, PacingIsOneOfTwoWords) {
  for (const char *value : {"event", "EVENT", "Event"}) {
    EXPECT_TRUE(read_fresh("pacing=" + std::string(value) + "\r\n").event_pacing) << value;
    EXPECT_TRUE(read_fresh("pacing=" + std::string(value)).event_pacing) << value;
  }
  for (const char *value : {"steps", "", " event", "event ", "events", "even", "1", "\"event\""})
    EXPECT_FALSE(read_fresh("pacing=" + std::string(value) + "\n").event_pacing) << value;
}

// "" and blanks at both ends, "=", quotes, "#", "%" and bytes above 0x7F stay, without a line end.
TEST_F(ConfigFileTest, LocationIsCopiedAsItIs) {
  for (const char *value : {"", "  a=b # \"c\" \t", "M\xC3\xBCnchen %s%n"}) {
    EXPECT_EQ(value, location_from(value + "\n"s));
    EXPECT_EQ(value, location_from(value));
  }
}

// Of a longer line the location has what the first 254 characters hold.
TEST_F(ConfigFileTest, LongLineIsReadInPiecesOf254Characters) {
  const std::string filling(254 - sizeof "ap_location", 'a');
  EXPECT_EQ(filling, location_from(filling + "bbb\n"));
}

// "log_level=5" is read as a line of its own from character 255 on, and not from 254 on.
TEST_F(ConfigFileTest, RestOfALongLineMayMatchAKey) {
  EXPECT_EQ(5u, read_fresh("#" + std::string(253, 'x') + "log_level=5\n").log_level);
  EXPECT_EQ(0u, read_fresh("#" + std::string(252, 'x') + "log_level=5\n").log_level);
}

// 254 characters with or without the line end among them are one value; the next line is read.
TEST_F(ConfigFileTest, LineThatJustFillsTheBufferIsWhole) {
  for (const std::size_t characters : {253u, 254u}) {
    const std::string filling(characters - sizeof "ap_location", 'a');
    EXPECT_EQ(filling, location_from(filling + "\nlog_level=5\n"));
    EXPECT_EQ(5u, cfg.log_level);
  }
}

// The path ends at character 254; a "/" beyond it leaves the URL invalid.
TEST_F(ConfigFileTest, LongUrlIsCutWithItsPiece) {
  const std::string kept(254 - sizeof "roam_service_url" - sizeof "ws://h:80", 'p');
  EXPECT_EQ(url_from("ws://h:80/" + kept + "qqq"), "h 80 /" + kept);
  // The "/" stands in the second piece, so the URL in the first one is incomplete.
  EXPECT_EQ(url_from("ws://" + std::string(228, 'h') + ":123/p"), no_url);
  EXPECT_EQ(url_from("ws://" + std::string(227, 'h') + ":123/p"), std::string(227, 'h') + " 123 /");
}

// A line of 1,000,000 characters is passed over and the key on the next line read.
TEST_F(ConfigFileTest, VeryLongLineIsHarmless) {
  EXPECT_EQ(5u, read_fresh(std::string(1000000, '=') + "\nlog_level=5\n").log_level);
}

// A NUL cuts the value of its own line, or hides the key behind it; the next lines are read.
TEST_F(ConfigFileTest, NulByteEndsItsLinesValueOnly) {
  const websock_cfg_t got = read_fresh("ap_location=ab\0cd\n"
                                       "roam_service_url=h:80/p\0q\n"
                                       "initial_connection_delay=1\0"
                                       "2\n"
                                       "\0log_level=5\n"
                                       "max_connection_delay\0=3\n"
                                       "max_connection_delay=4\n\0"s);
  EXPECT_EQ(url_of(got), "h 80 /p");
  EXPECT_EQ(settings_of(got), "delays 1 4, level 0, ab");
}

// A "/" behind a NUL is not found, so the URL is invalid.
TEST_F(ConfigFileTest, NulByteInTheUrlHidesWhatFollows) {
  EXPECT_EQ(url_from("h:80\0/p"s), no_url);
  EXPECT_EQ(url_from("\0"s), no_url);
}

} // namespace vemk
