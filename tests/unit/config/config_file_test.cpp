#include <cstring>
#include <random>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/websock_cfg.h"
#include "fakes/fake_log.h"
#include "fakes/temporary_folder.h"
#include "log/log_module.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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

  static std::string refusal(const std::string &scheme) {
    return "|" + std::to_string(getpid()) + "|websock-cfg> Proto " + scheme + " is invalid\n";
  }

  temporary_folder folder;
  websock_cfg_t cfg{};
};

struct valid_url_t {
  const char *value;
  const char *host;
  std::int32_t port;
  const char *path;
};

struct number_t {
  const char *value;
  std::uint32_t number;
};

} // namespace

// The location is "default-domain" and g_log_level 0 instead of 15; all else stays empty.
TEST_F(ConfigFileTest, EmptyFileGivesTheDefaultLocationOnly) {
  g_log_level = 15;
  EXPECT_TRUE(read(""));
  EXPECT_STREQ("default-domain", cfg.ap_location);
  EXPECT_EQ(0u, g_log_level);
  EXPECT_STREQ("", cfg.host);
  EXPECT_STREQ("", cfg.path);
  EXPECT_EQ(0, cfg.port);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_EQ(0u, cfg.initial_connection_delay);
  EXPECT_EQ(0u, cfg.max_connection_delay);
  EXPECT_FALSE(cfg.whole_messages);
}

// Every key's value arrives in its field, the log level in g_log_level too.
TEST_F(ConfigFileTest, EveryKeyIsStored) {
  EXPECT_TRUE(read("# a comment\n"
                   "\n"
                   "roam_service_url=ws://192.0.2.7:8080/roam\n"
                   "initial_connection_delay=5\n"
                   "max_connection_delay=300\n"
                   "ap_location=floor 3, west\n"
                   "log_level=9\n"
                   "whole_messages=1\n"));
  EXPECT_STREQ("192.0.2.7", cfg.host);
  EXPECT_EQ(8080, cfg.port);
  EXPECT_STREQ("/roam", cfg.path);
  EXPECT_TRUE(cfg.url_valid);
  EXPECT_EQ(5u, cfg.initial_connection_delay);
  EXPECT_EQ(300u, cfg.max_connection_delay);
  EXPECT_STREQ("floor 3, west", cfg.ap_location);
  EXPECT_EQ(9u, cfg.log_level);
  EXPECT_EQ(9u, g_log_level);
  EXPECT_TRUE(cfg.whole_messages);
}

// A second file without keys changes the location to "default-domain" and g_log_level to 0 only.
TEST_F(ConfigFileTest, FieldsOfAbsentKeysKeepTheirValues) {
  ASSERT_TRUE(read("roam_service_url=h:1/p\ninitial_connection_delay=5\nmax_connection_delay=6\n"
                   "ap_location=here\nlog_level=8\nwhole_messages=1\n"));
  ASSERT_TRUE(read("unknown=1\n"));
  EXPECT_STREQ("h", cfg.host);
  EXPECT_EQ(1, cfg.port);
  EXPECT_STREQ("/p", cfg.path);
  EXPECT_TRUE(cfg.url_valid);
  EXPECT_EQ(5u, cfg.initial_connection_delay);
  EXPECT_EQ(6u, cfg.max_connection_delay);
  EXPECT_EQ(8u, cfg.log_level);
  EXPECT_TRUE(cfg.whole_messages);
  EXPECT_STREQ("default-domain", cfg.ap_location);
  EXPECT_EQ(0u, g_log_level);
}

// It returns false with "default-domain" and g_log_level 0 set before, and logs nothing.
TEST_F(ConfigFileTest, MissingFileFailsSilentlyWithTheDefaultsInPlace) {
  g_log_level = 15;
  EXPECT_FALSE(read_config_file(cfg, folder.file("absent").c_str()));
  EXPECT_STREQ("default-domain", cfg.ap_location);
  EXPECT_EQ(0u, g_log_level);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// A folder can be opened, so it returns true with the defaults and logs nothing.
TEST_F(ConfigFileTest, FolderReadsAsAFileWithoutLines) {
  EXPECT_TRUE(read_config_file(cfg, folder.path().c_str()));
  EXPECT_STREQ("default-domain", cfg.ap_location);
  EXPECT_FALSE(cfg.url_valid);
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// ws://192.0.2.7:8080/roam, 192.0.2.7:8080/ and odd ones: host, port and "/"-path, url_valid set.
TEST_F(ConfigFileTest, CompleteUrlsAreValid) {
  const valid_url_t cases[] = {
      {"ws://192.0.2.7:8080/roam", "192.0.2.7", 8080, "/roam"},
      {"192.0.2.7:8080/", "192.0.2.7", 8080, "/"},
      {"ws://host:80/", "host", 80, "/"},
      {"ws://:/", "", 0, "/"},
      {"host:/p", "host", 0, "/p"},
      {"host:80/a/b?c=d:e#f", "host", 80, "/a/b?c=d:e#f"},
      {"host:80//", "host", 80, "//"},
      {"host:80:81/p", "host", 80, "/p"},
      {"host:80x/p", "host", 80, "/p"},
      {"host:x/p", "host", 0, "/p"},
      {"host:-5/p", "host", -5, "/p"},
      {"host:65536/p", "host", 65536, "/p"},
      {"host:2147483648/p", "host", 2147483647, "/p"},
      {"host:99999999999999999999/p", "host", 2147483647, "/p"},
      {"host:-99999999999999999999/p", "host", -2147483647 - 1, "/p"},
      {"ws://host/a:80/b", "host/a", 80, "/b"},
      {" host:80/p ", " host", 80, "/p "},
      {"ws:/host:80/p", "ws", 0, "/host:80/p"},
      {"host%n:80/%s%n", "host%n", 80, "/%s%n"},
  };
  for (const valid_url_t &expected : cases) {
    const websock_cfg_t got = read_fresh("roam_service_url=" + std::string(expected.value) + "\n");
    EXPECT_TRUE(got.url_valid) << expected.value;
    EXPECT_STREQ(expected.host, got.host) << expected.value;
    EXPECT_EQ(expected.port, got.port) << expected.value;
    EXPECT_STREQ(expected.path, got.path) << expected.value;
  }
}

// Without ":", or without "/" behind the port, host, port, path and url_valid stay unset.
TEST_F(ConfigFileTest, IncompleteUrlsAreNotValid) {
  for (const char *value : {"", "host", "ws://host", "ws://host:80", "host:80", "ws://host/roam",
                            "host/roam", "ws://", "ws://:", "/", "80"}) {
    const websock_cfg_t got = read_fresh("roam_service_url=" + std::string(value) + "\n");
    EXPECT_FALSE(got.url_valid) << value;
    EXPECT_STREQ("", got.host) << value;
    EXPECT_EQ(0, got.port) << value;
    EXPECT_STREQ("", got.path) << value;
  }
}

// After ws://first:1/a two incomplete URLs change none of the four fields.
TEST_F(ConfigFileTest, IncompleteUrlLeavesAnEarlierOneInPlace) {
  const websock_cfg_t got = read_fresh("roam_service_url=ws://first:1/a\n"
                                       "roam_service_url=ws://second:2\n"
                                       "roam_service_url=ws://third/c\n");
  EXPECT_TRUE(got.url_valid);
  EXPECT_STREQ("first", got.host);
  EXPECT_EQ(1, got.port);
  EXPECT_STREQ("/a", got.path);
}

// "ho\nst" and "/pa\rth" from before become "ho" and "/pa" at any URL line.
TEST_F(ConfigFileTest, IncompleteUrlStillCutsHostAndPathAtTheirLineEnds) {
  strcpy(cfg.host, "ho\nst");
  strcpy(cfg.path, "/pa\rth");
  EXPECT_TRUE(read("roam_service_url=incomplete\n"));
  EXPECT_STREQ("ho", cfg.host);
  EXPECT_STREQ("/pa", cfg.path);
}

// In "h\rx:80/p" a CR ends the host alone.
TEST_F(ConfigFileTest, CarriageReturnEndsTheHost) {
  const websock_cfg_t got = read_fresh("roam_service_url=h\rx:80/p\n");
  EXPECT_STREQ("h", got.host);
  EXPECT_EQ(80, got.port);
  EXPECT_STREQ("/p", got.path);
}

// LF, CR LF, CR, CR CR LF and none at all give the same path, location and numbers.
TEST_F(ConfigFileTest, LineEndsBelongToNoValue) {
  for (const char *line_end : {"\n", "\r\n", "\r", "", "\r\r\n"}) {
    const std::string end = line_end;
    EXPECT_STREQ("/p", read_fresh("roam_service_url=h:80/p" + end).path);
    EXPECT_STREQ("/", read_fresh("roam_service_url=h:80/" + end).path);
    EXPECT_STREQ("floor 3", read_fresh("ap_location=floor 3" + end).ap_location);
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
    EXPECT_FALSE(cfg.url_valid) << scheme;
    EXPECT_STREQ("", cfg.host) << scheme;
  }
}

// The ws URL and delay before the wss line stay; the delay and location behind it are unread.
TEST_F(ConfigFileTest, WrongSchemeStopsTheReadingAndKeepsWhatStoodBefore) {
  EXPECT_FALSE(read("roam_service_url=ws://host:80/p\n"
                    "initial_connection_delay=5\n"
                    "roam_service_url=wss://other:81/q\n"
                    "max_connection_delay=6\n"
                    "ap_location=there\n"));
  EXPECT_TRUE(cfg.url_valid);
  EXPECT_STREQ("host", cfg.host);
  EXPECT_EQ(80, cfg.port);
  EXPECT_STREQ("/p", cfg.path);
  EXPECT_EQ(5u, cfg.initial_connection_delay);
  EXPECT_EQ(0u, cfg.max_connection_delay);
  EXPECT_STREQ("default-domain", cfg.ap_location);
}

// Levels with bit 0x08 (8, 15, 0x0F, 0xFFFF, 24) log the refusal; 0, 7, 0x, 16 and "" do not.
TEST_F(ConfigFileTest, LogLevelBeforeTheUrlDecidesAboutTheRefusalsLine) {
  for (const char *level : {"8", "15", "0x0F", "0xFFFF", "24"}) {
    fake_log::clear();
    EXPECT_FALSE(read("log_level=" + std::string(level) + "\nroam_service_url=wss://h:1/p\n"));
    EXPECT_THAT(fake_log::lines(), ElementsAre(refusal("wss"))) << level;
  }
  for (const char *level : {"0", "7", "0x", "16", ""}) {
    fake_log::clear();
    EXPECT_FALSE(read("log_level=" + std::string(level) + "\nroam_service_url=wss://h:1/p\n"));
    EXPECT_THAT(fake_log::lines(), IsEmpty()) << level;
  }
}

// With "log_level=0" after the wss line the refusal is logged under the mask 0xFFFF.
TEST_F(ConfigFileTest, LogLevelBehindTheUrlComesTooLate) {
  EXPECT_FALSE(read("roam_service_url=wss://h:1/p\nlog_level=0\n"));
  EXPECT_THAT(fake_log::lines(), ElementsAre(refusal("wss")));
}

// "websock-cfg" logs the refusal although g_log_level is 0.
TEST_F(ConfigFileTest, ModuleKeepsItsMaskWithoutALogLevelLine) {
  g_log_level = 0;
  EXPECT_FALSE(read("ap_location=x\nroam_service_url=wss://h:1/p\n"));
  EXPECT_THAT(fake_log::lines(), ElementsAre(refusal("wss")));
}

// All six keys in upper or mixed case are read; the values keep their case.
TEST_F(ConfigFileTest, KeysIgnoreCase) {
  const websock_cfg_t got = read_fresh("ROAM_SERVICE_URL=H:80/P\n"
                                       "Initial_Connection_Delay=1\n"
                                       "MAX_CONNECTION_DELAY=2\n"
                                       "AP_Location=Here\n"
                                       "LOG_level=3\n"
                                       "Whole_Messages=1\n");
  EXPECT_TRUE(got.url_valid);
  EXPECT_STREQ("H", got.host);
  EXPECT_STREQ("/P", got.path);
  EXPECT_EQ(1u, got.initial_connection_delay);
  EXPECT_EQ(2u, got.max_connection_delay);
  EXPECT_STREQ("Here", got.ap_location);
  EXPECT_EQ(3u, got.log_level);
  EXPECT_TRUE(got.whole_messages);
}

// A blank or "#" before the key, a blank before "=" or another key: nothing is set.
TEST_F(ConfigFileTest, LinesThatMatchNoKeyAreIgnored) {
  for (const char *line :
       {" roam_service_url=h:80/p", "\troam_service_url=h:80/p", "#roam_service_url=h:80/p",
        "roam_service_url =h:80/p", "roam_service_url", "roam_service_ur=h:80/p", "[section]", "=",
        "", "xroam_service_url=h:80/p"}) {
    const websock_cfg_t got = read_fresh(std::string(line) + "\n");
    EXPECT_FALSE(got.url_valid) << line;
    EXPECT_STREQ("", got.host) << line;
    EXPECT_STREQ("default-domain", got.ap_location) << line;
  }
}

// Each of the six keys on two lines takes the second value, also where that is empty.
TEST_F(ConfigFileTest, LastLineOfAKeyCounts) {
  const websock_cfg_t got = read_fresh("roam_service_url=a:1/a\nroam_service_url=b:2/b\n"
                                       "initial_connection_delay=1\ninitial_connection_delay=2\n"
                                       "max_connection_delay=3\nmax_connection_delay=\n"
                                       "ap_location=first\nap_location=second\n"
                                       "log_level=1\nlog_level=2\n"
                                       "whole_messages=1\nwhole_messages=\n");
  EXPECT_STREQ("b", got.host);
  EXPECT_EQ(2, got.port);
  EXPECT_STREQ("/b", got.path);
  EXPECT_EQ(2u, got.initial_connection_delay);
  EXPECT_EQ(0u, got.max_connection_delay);
  EXPECT_STREQ("second", got.ap_location);
  EXPECT_EQ(2u, got.log_level);
  EXPECT_EQ(2u, g_log_level);
  EXPECT_FALSE(got.whole_messages);
}

// "010" is 10, "0x10" 0, "5s" 5, "" 0, "-1" and all beyond 32 bits 4294967295.
TEST_F(ConfigFileTest, DelaysAreDecimal) {
  const number_t cases[] = {
      {"30", 30},
      {"", 0},
      {"abc", 0},
      {" 12", 12},
      {"+5", 5},
      {"5s", 5},
      {"010", 10},
      {"0x10", 0},
      {"4294967295", largest},
      {"4294967296", largest},
      {"99999999999999999999999", largest},
      {"-1", largest},
      {"-4294967295", 1},
      {"-4294967296", largest},
  };
  for (const number_t &expected : cases) {
    const std::string value = expected.value;
    EXPECT_EQ(expected.number,
              read_fresh("initial_connection_delay=" + value + "\n").initial_connection_delay)
        << value;
    EXPECT_EQ(expected.number,
              read_fresh("max_connection_delay=" + value + "\n").max_connection_delay)
        << value;
  }
}

// 15, 015, 0x0F and 0X0f are the same; "0x" is 0, "F" is 0, "0x8Z" is 8.
TEST_F(ConfigFileTest, LogLevelIsDecimalOrHexadecimal) {
  const number_t cases[] = {
      {"15", 15},
      {"015", 15},
      {"0x0F", 15},
      {"0X0f", 15},
      {"0x1f", 31},
      {"0x", 0},
      {"0xG", 0},
      {"0x8Z", 8},
      {"0x 8", 8},
      {"0x0x8", 8},
      {"x8", 0},
      {"F", 0},
      {" 0x8", 0},
      {"8", 8},
      {"", 0},
      {"-1", largest},
      {"0xFFFFFFFF", largest},
      {"0x1FFFFFFFF", largest},
      {"4294967296", largest},
      {"99999999999999999999999", largest},
  };
  for (const number_t &expected : cases) {
    const websock_cfg_t got = read_fresh("log_level=" + std::string(expected.value) + "\n");
    EXPECT_EQ(expected.number, got.log_level) << expected.value;
    EXPECT_EQ(expected.number, g_log_level) << expected.value;
  }
}

// 0 and what has no digits in front are off, every other decimal number is on.
TEST_F(ConfigFileTest, WholeMessagesAreOnForEveryNumberBut0) {
  for (const char *value : {"0", "00", "-0", "", "on", "yes", "true", "a", "0x1", "x1", " 0"})
    EXPECT_FALSE(read_fresh("whole_messages=" + std::string(value) + "\n").whole_messages) << value;
  for (const char *value : {"1", "01", "2", "9", "10", "1x", " 1", "+1", "-1", "4294967296"})
    EXPECT_TRUE(read_fresh("whole_messages=" + std::string(value) + "\n").whole_messages) << value;
}

// "ap_location=" gives "", with a line end and without one.
TEST_F(ConfigFileTest, EmptyLocationReplacesTheDefault) {
  EXPECT_STREQ("", read_fresh("ap_location=\n").ap_location);
  EXPECT_STREQ("", read_fresh("ap_location=").ap_location);
}

// Blanks at both ends, "=", quotes, "#", "%" and bytes above 0x7F stay in the location.
TEST_F(ConfigFileTest, LocationIsCopiedAsItIs) {
  EXPECT_STREQ("  a=b # \"c\" \t", read_fresh("ap_location=  a=b # \"c\" \t\n").ap_location);
  EXPECT_STREQ("M\xC3\xBCnchen %s%n", read_fresh("ap_location=M\xC3\xBCnchen %s%n\n").ap_location);
}

// Of a longer line the location has what the first 254 characters hold.
TEST_F(ConfigFileTest, LongLineIsReadInPiecesOf254Characters) {
  const std::string key = "ap_location=";
  const std::string filling(254 - key.size(), 'a');
  const websock_cfg_t got = read_fresh(key + filling + "bbb\n");
  EXPECT_EQ(filling, got.ap_location);
}

// "log_level=5" is read as a line of its own from character 255 on, and not from 254 on.
TEST_F(ConfigFileTest, RestOfALongLineMayMatchAKey) {
  const websock_cfg_t got = read_fresh("#" + std::string(253, 'x') + "log_level=5\n");
  EXPECT_EQ(5u, got.log_level);
  EXPECT_EQ(0u, read_fresh("#" + std::string(252, 'x') + "log_level=5\n").log_level);
}

// 254 characters with or without the line end among them are one value; the next line is read.
TEST_F(ConfigFileTest, LineThatJustFillsTheBufferIsWhole) {
  const std::string key = "ap_location=";
  const std::string with_line_end(253 - key.size(), 'a');
  EXPECT_EQ(with_line_end, read_fresh(key + with_line_end + "\nlog_level=5\n").ap_location);
  EXPECT_EQ(5u, cfg.log_level);
  const std::string line_end_apart(254 - key.size(), 'a');
  EXPECT_EQ(line_end_apart, read_fresh(key + line_end_apart + "\nlog_level=5\n").ap_location);
  EXPECT_EQ(5u, cfg.log_level);
}

// The path ends at character 254; a "/" beyond it leaves the URL invalid.
TEST_F(ConfigFileTest, LongUrlIsCutWithItsPiece) {
  const std::string head = "roam_service_url=ws://h:80/";
  const std::string kept(254 - head.size(), 'p');
  const websock_cfg_t got = read_fresh(head + kept + "qqq\n");
  EXPECT_TRUE(got.url_valid);
  EXPECT_EQ("/" + kept, got.path);

  // The "/" stands in the second piece, so the URL in the first one is incomplete.
  const std::string port_ends_the_piece = "roam_service_url=ws://" + std::string(228, 'h') + ":123";
  ASSERT_EQ(254u, port_ends_the_piece.size());
  EXPECT_FALSE(read_fresh(port_ends_the_piece + "/p\n").url_valid);
}

// A line of 1,000,000 characters is passed over and the key on the next line read.
TEST_F(ConfigFileTest, VeryLongLineIsHarmless) {
  const websock_cfg_t got = read_fresh(std::string(1000000, '=') + "\nlog_level=5\n");
  EXPECT_EQ(5u, got.log_level);
}

// A NUL cuts the value of its own line, or hides the key behind it; the next lines are read.
TEST_F(ConfigFileTest, NulByteEndsItsLinesValueOnly) {
  using namespace std::string_literals;
  const websock_cfg_t got = read_fresh("ap_location=ab\0cd\n"
                                       "roam_service_url=h:80/p\0q\n"
                                       "initial_connection_delay=1\0"
                                       "2\n"
                                       "\0log_level=5\n"
                                       "max_connection_delay\0=3\n"
                                       "max_connection_delay=4\n\0"s);
  EXPECT_STREQ("ab", got.ap_location);
  EXPECT_TRUE(got.url_valid);
  EXPECT_STREQ("/p", got.path);
  EXPECT_EQ(1u, got.initial_connection_delay);
  EXPECT_EQ(0u, got.log_level);
  EXPECT_EQ(4u, got.max_connection_delay);
}

// A "/" behind a NUL is not found, so the URL is invalid.
TEST_F(ConfigFileTest, NulByteInTheUrlHidesWhatFollows) {
  using namespace std::string_literals;
  EXPECT_FALSE(read_fresh("roam_service_url=h:80\0/p\n"s).url_valid);
  EXPECT_FALSE(read_fresh("roam_service_url=\0\n"s).url_valid);
}

// In 300 random files each text ends within its 256 bytes, and a valid URL's path starts with "/".
TEST_F(ConfigFileTest, RandomBytesNeverLeaveTheRecord) {
  const std::string pieces[] = {"roam_service_url=",
                                "ap_location=",
                                "log_level=",
                                "://",
                                "ws",
                                ":",
                                "/",
                                "\n",
                                "\r",
                                std::string(1, '\0'),
                                "0x",
                                "\xFF",
                                "%n",
                                "9999999999",
                                std::string(120, 'a')};
  std::minstd_rand random(1);
  for (int round = 0; round < 300; ++round) {
    std::string text;
    for (int i = 0; i < 40; ++i)
      text += pieces[random() % std::size(pieces)];
    memset(&cfg, 0, sizeof cfg);
    read(text);
    EXPECT_LT(strnlen(cfg.host, sizeof cfg.host), sizeof cfg.host);
    EXPECT_LT(strnlen(cfg.path, sizeof cfg.path), sizeof cfg.path);
    EXPECT_LT(strnlen(cfg.ap_location, sizeof cfg.ap_location), sizeof cfg.ap_location);
    if (cfg.url_valid) {
      EXPECT_EQ('/', cfg.path[0]);
    }
  }
}

} // namespace vemk
