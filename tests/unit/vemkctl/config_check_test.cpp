#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/temporary_folder.h"
#include "vemkctl/commands.h"
#include "vemkctl/config_check.h"
#include "vemkctl/config_findings.h"

namespace vemk {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string good_url = "roam_service_url=ws://192.0.2.7:8080/roam\n";
const std::string good_delays = "initial_connection_delay=2\nmax_connection_delay=60\n";
const std::string good = good_url + good_delays;

std::string with_delays(const std::string &initial, const std::string &largest) {
  return good_url + "initial_connection_delay=" + initial + "\nmax_connection_delay=" + largest +
         "\n";
}

/// What is in a file, and what is said of it.
using texts_t = std::vector<std::pair<std::string, std::string>>;

class ConfigCheckTest : public testing::Test {
protected:
  config_check_t check(const std::string &bytes) {
    return check_config(folder.write("vemk.conf", bytes));
  }

  /// The findings as "LINE: text", LINE being 0 for the file.
  static std::vector<std::string> findings(const std::string &bytes) {
    std::vector<std::string> texts;
    for (const finding_t &finding : find_in_config(bytes).findings)
      texts.push_back(std::to_string(finding.line) + ": " + finding.text);
    return texts;
  }

  void expect_warning(const std::string &bytes, const std::string &text) {
    const config_check_t result = check(bytes);
    EXPECT_EQ(result.verdict, config_verdict::usable_with_warnings) << result.report;
    EXPECT_THAT(result.report, HasSubstr(folder.file("vemk.conf") + ":" + text));
  }

  void expect_unusable(const std::string &bytes, const std::string &text) {
    const config_check_t result = check(bytes);
    EXPECT_EQ(result.verdict, config_verdict::unusable) << result.report;
    EXPECT_THAT(result.report, HasSubstr(text));
    EXPECT_THAT(result.report, HasSubstr(": not usable: the daemon would "));
    EXPECT_THAT(result.report, Not(HasSubstr("the daemon uses")));
  }

  static void expect_findings(const std::string &key, const texts_t &values) {
    for (const auto &[value, text] : values)
      EXPECT_THAT(findings(key + value + "\n"), ElementsAre(HasSubstr(text)));
  }

  static void expect_no_findings(const std::string &key, const std::vector<std::string> &values) {
    for (const std::string &value : values)
      EXPECT_THAT(findings(key + value + "\n"), IsEmpty());
  }

  /// Of a service with good delays.
  void expect_url_warnings(const texts_t &urls) {
    for (const auto &[url, text] : urls)
      expect_warning("roam_service_url=" + url + "\n" + good_delays, "1: warning: " + text);
  }

  void expect_unusable_urls(const texts_t &urls) {
    for (const auto &[url, text] : urls)
      expect_unusable("roam_service_url=" + url + "\n", text);
  }

  temporary_folder folder;
};

// The whole report, first five windows among it: with whole_messages=1 there is no note.
TEST_F(ConfigCheckTest, TellsWhatTheDaemonUses) {
  const config_check_t result =
      check(good + "ap_location=lobby west\nlog_level=0x05\nwhole_messages=1\n");
  EXPECT_EQ(result.verdict, config_verdict::usable);
  EXPECT_EQ(result.report, folder.file("vemk.conf") +
                               ": usable; the daemon uses\n"
                               "  host            192.0.2.7\n"
                               "  port            8080\n"
                               "  path            /roam\n"
                               "  initial delay   2 s\n"
                               "  maximum delay   60 s\n"
                               "  first delays    [1;3) [2;6) [4;12) [8;24) [16;48) seconds\n"
                               "  log             error, info (0x05)\n"
                               "  location        lobby west\n"
                               "  whole messages  yes\n"
                               "  pacing          steps\n");
}

// Without whole_messages, and with 0, a note; without its key no log (0x00) and default-domain.
TEST_F(ConfigCheckTest, WholeMessagesAreRecommended) {
  const std::string file = folder.file("vemk.conf");
  const config_check_t absent = check(good);
  EXPECT_EQ(absent.verdict, config_verdict::usable);
  EXPECT_THAT(absent.report,
              AllOf(StartsWith(file +
                               ": note: without whole_messages=1 a message that the service "
                               "ends with an empty fragment, as many do, sticks to the "
                               "front of the next one; add whole_messages=1\n" +
                               file + ": usable; the daemon uses\n"),
                    EndsWith("  log             nothing (0x00)\n"
                             "  location        default-domain\n"
                             "  whole messages  no\n"
                             "  pacing          steps\n")));
  const config_check_t off = check(good + "whole_messages=0\n");
  EXPECT_EQ(off.verdict, config_verdict::usable);
  EXPECT_THAT(off.report, StartsWith(file + ":4: note: without whole_messages=1 "));
}

// Beside warnings the note is not counted, and a file that is not usable brings none.
TEST_F(ConfigCheckTest, NoteIsNoWarning) {
  const config_check_t result = check(good + "ap_location= x\n");
  EXPECT_EQ(result.verdict, config_verdict::usable_with_warnings);
  EXPECT_THAT(result.report, AllOf(HasSubstr(": note: without whole_messages=1"),
                                   HasSubstr(": usable, with 1 warning; the daemon uses\n")));
  EXPECT_THAT(check("whole_messages=0\n").report, Not(HasSubstr("note:")));
}

// Words and an empty value count as 0, other numbers and signs as what they are: 1.
TEST_F(ConfigCheckTest, WholeMessagesAre0Or1) {
  expect_findings("whole_messages=",
                  {{"", "whole_messages: it has no value and counts as 0; give a number"},
                   {"yes", "'yes' is not a number and counts as 0"},
                   {"0x1", "'0x1' has 'x1' behind the number and counts as 0"},
                   {"1 ", "'1 ' has ' ' behind the number and counts as 1"},
                   {" 1", "' 1' has blanks or a sign before the number and counts as 1"},
                   {"-1", "'-1' has a sign and counts as 1"},
                   {"4294967296", "'4294967296' is beyond 32 bits and counts as 1"},
                   {"2", "'2' counts as 1; write 1"},
                   {"10", "'10' counts as 1; write 1"}});
  expect_no_findings("whole_messages=", {"0", "1", "00", "01"});
  expect_findings("whole_mesages=", {{"1", "did you mean whole_messages=?"}});
}

// "event" in any letter case is used; another word is a warning and counts as "steps".
TEST_F(ConfigCheckTest, PacingIsStepsOrEvent) {
  expect_no_findings("pacing=", {"steps", "event", "Steps", "EVENT"});
  for (const char *value : {"", "fast", "event ", " steps"}) {
    const std::string fault =
        "'" + std::string(value) + "' is not a pacing and counts as steps; write steps or event";
    expect_findings("pacing=", {{value, fault}});
    EXPECT_THAT(check(good + "pacing=" + value + "\n").report,
                EndsWith("  pacing          steps\n"));
  }
  EXPECT_THAT(check(good + "pacing=Event\n").report, EndsWith("  pacing          event\n"));
  expect_findings("paceing=", {{"event", "did you mean pacing=?"}});
}

// "#", ";" and indented comments, blank lines and "LOG_LEVEL=0X0f" bring no finding.
TEST_F(ConfigCheckTest, CommentsBlankLinesAndLetterCaseAreFine) {
  EXPECT_THAT(findings("# comment = 1\n; comment\n\n   \n  # indented\nLOG_LEVEL=0X0f\n" + good),
              IsEmpty());
}

// Blanks before the key or sign, unknown keys with a hint at the nearest, and plain words.
TEST_F(ConfigCheckTest, LinesThatMatchNoKeyAreNamed) {
  EXPECT_THAT(
      findings(" log_level=1\nlog_level =1\nmax_conection_delay=60\nMAX-CONNECTION-DELAY=60\n"
               "colour=red\n[vemk]\nlog_level 5\n"),
      ElementsAre(
          AllOf(StartsWith("1: blanks before the key"), HasSubstr("write log_level= in the first")),
          AllOf(StartsWith("2: blanks before the key"), HasSubstr("write log_level= in the first")),
          AllOf(StartsWith("3: 'max_conection_delay' is not a key"),
                EndsWith("did you mean max_connection_delay=?")),
          AllOf(StartsWith("4: 'MAX-CONNECTION-DELAY' is not a key"),
                EndsWith("did you mean max_connection_delay=?")),
          AllOf(StartsWith("5: 'colour' is not a key"), Not(HasSubstr("did you mean"))),
          StartsWith("6: '[vemk]' is neither KEY=VALUE nor a comment"),
          StartsWith("7: 'log_level 5' is neither KEY=VALUE nor a comment")));
}

// Of 25 such lines 20 are named and "5 more lines match no key" counts the rest.
TEST_F(ConfigCheckTest, ManyIgnoredLinesAreCounted) {
  std::string file;
  for (int i = 0; i < 25; ++i)
    file += "words\n";
  const auto texts = findings(file);
  ASSERT_EQ(texts.size(), 21u);
  EXPECT_THAT(texts.back(), StartsWith("0: 5 more lines match no key"));
}

// A service line that matches no key is an error, and so is a file without one.
TEST_F(ConfigCheckTest, MisplacedServiceKeyIsWhyThereIsNoService) {
  expect_unusable(" " + good, ":1: error: blanks before the key");
  expect_unusable("roam_service_url = ws://192.0.2.7:8080/roam\n", ":1: error: blanks before");
  expect_unusable("roam_servce_url=ws://192.0.2.7:8080/roam\n", "did you mean roam_service_url=?");
  expect_unusable("# nothing\n", "because no line gives it a service; add roam_service_url=");
}

// No port, '/' or host, another scheme, ports 0, 65536 and "http", hosts with a blank, '/' or '['.
TEST_F(ConfigCheckTest, UrlsThatCannotBeConnectedToAreUnusable) {
  expect_unusable_urls({
      {"ws://host/roam", ":1: error: the URL has no port; "},
      {"ws://host:80", ":1: error: the URL has no '/' behind its port"},
      {"ws://host/a:b", ":1: error: the URL has no port before its path"},
      {"", ":1: error: the URL has no port; "},
      {"wss://h:80/", "'wss' is refused, there is no TLS"},
      {"WS://h:80/", "'WS' is refused, it must be in lower case"},
      {" ws://h:80/", "' ws' is refused, blanks are part of it"},
      {"http://h:80/", "'http' is refused, it is all that stands"},
      {"h:80/?to=x://", "'h:80/?to=x' is refused"},
      {"ws://h:0/", ":1: error: port 0 is not a port to connect to"},
      {"ws://h:65536/", "port 65536 counts as 0, which is not a port"},
      {"ws://h:/", ":1: error: port: it has no value"},
      {"ws://h:http/", ":1: error: port: 'http' is not a number"},
      {"ws://u:pw@h:80/", "port: 'pw@h:80' is not a number"},
      {"ws://:80/", ":1: error: the URL has no host"},
      {"ws://h :80/", ":1: error: host 'h ' holds blanks"},
      {"ws://h/roam:80/x", ":1: error: host 'h/roam' holds a '/'"},
      {"ws://[::1]:80/x", ":1: error: host '[' begins an IPv6"},
  });
}

// Lines behind a refused scheme are named as not read.
TEST_F(ConfigCheckTest, RefusedSchemeStopsTheReading) {
  expect_unusable("roam_service_url=wss://h:80/\n\n" + good,
                  ":3: warning: from here on nothing is read, because of the scheme on line 1");
}

// The service of line 1 stays in use, with a warning for line 4.
TEST_F(ConfigCheckTest, ServiceReadBeforeARefusedSchemeOrAnIncompleteUrlStays) {
  expect_warning(good + "roam_service_url=wss://other:1/\n",
                 "4: warning: scheme 'wss' is refused, there is no TLS; write ws://; the one of "
                 "line 1 stays in use\n");
  expect_warning(good + "roam_service_url=ws://other/\n", "4: warning: the URL has no port; ");
  EXPECT_THAT(check(good + "roam_service_url=ws://other/\n").report,
              HasSubstr("  host            192.0.2.7\n"));
}

// 83616 is a warning and shown as 18080.
// The WebSocket library takes the port's lowest 16 bits, and a server there is connected to.
TEST_F(ConfigCheckTest, PortsOutOfRangeAreTakenModulo65536) {
  expect_url_warnings(
      {{"ws://h:83616/",
        "port '83616' is not from 1 to 65535, and the connection goes to port 18080; "},
       {"ws://h:-1/", "port '-1' is not"}});
  EXPECT_THAT(check("roam_service_url=ws://h:83616/\n").report,
              HasSubstr("  port            18080 (from 83616)\n"));
}

// Not all ASCII, "*", blanks, text behind the port, "/roam # test" and "/roam#test" are warnings.
TEST_F(ConfigCheckTest, OddHostsAndPathsAreWarnedOf) {
  // Behind a blank the warning was of the blank alone, and of "/roam#test" there was none; servers
  // answer both with 400 or 404.
  expect_url_warnings({
      {"ws://h\xC3\xB6st:80/", "host 'h\xC3\xB6st' is not all ASCII"},
      {"ws://h*:80/", "host 'h*' holds what no host name"},
      {"ws://h:80/a b", "path 'a b' holds blanks"},
      {"ws://h:80/ ", "path ' ' holds blanks"},
      {"ws://h:80/\xC3\xB6", "path '\xC3\xB6' is not all"},
      {"ws://h:80x/", "port: '80x' has 'x' behind"},
      {"ws://h:80/roam # test", "path 'roam # test' ends in a comment, which is part of it; give "
                                "the comment a line of its own\n"},
      {"ws://h:80/roam\t#", "path 'roam\\t#' ends in a comment"},
      {"ws://h:80/roam#test", "path 'roam#test' holds a '#', and many servers refuse that; write "
                              "%23 for it, or give a comment a line of its own\n"},
  });
}

// 256.300.1.1, 192.0.2, 192.0.2.7. and 010.0.2.7 are no IPv4 addresses; 1.2.3.4.example is a name.
TEST_F(ConfigCheckTest, NumbersThatAreNoAddressAreWarnedOf) {
  // 256.300.1.1 was called usable, and the daemon asked name servers for it for ever.
  for (const std::string host : {"256.300.1.1", "192.0.2", "192.0.2.7.", "010.0.2.7", "1"})
    expect_url_warnings(
        {{"ws://" + host + ":80/",
          "host '" + host +
              "' is all digits and dots, but not an IPv4 address; write four numbers from 0 to "
              "255, without leading zeros\n"}});
  EXPECT_EQ(check("roam_service_url=ws://1.2.3.4.example:80/\n" + good_delays).verdict,
            config_verdict::usable);
}

// A host of 110 bytes is good, one of 111 a warning: the library spoils the request for it.
// It was called usable, and no server ever accepted the daemon's handshake.
TEST_F(ConfigCheckTest, HostsThatTheLibrarySpoilsAreWarnedOf) {
  const auto file_with_host = [](std::size_t length) {
    return "roam_service_url=ws://" + std::string(length, 'h') + ":80/\n" + good_delays;
  };
  EXPECT_EQ(check(file_with_host(110)).verdict, config_verdict::usable);
  expect_warning(file_with_host(111),
                 "1: warning: the host has 111 bytes, and with more than 110 ");
}

// Each odd delay is named with its value: "5s" is 5, "-5" is 4294967291.
TEST_F(ConfigCheckTest, NumbersThatAreNotPlainAreNamedWithWhatTheyCountAs) {
  EXPECT_THAT(findings("max_connection_delay=\nmax_connection_delay=ten\n"),
              Contains("1: max_connection_delay: it has no value and counts as 0; give a number"));
  expect_findings("max_connection_delay=",
                  {{"ten", "'ten' is not a number and counts as 0"},
                   {"5s", "'5s' has 's' behind the number and counts as 5"},
                   {"5 ", "'5 ' has ' ' behind the number and counts as 5"},
                   {"0x10", "'0x10' has 'x10' behind the number and counts as 0"},
                   {"4294967296", "'4294967296' is beyond 32 bits and counts as 4294967295"},
                   {"99999999999999999999", "is beyond 32 bits and counts as 4294967295"},
                   {"-5", "'-5' has a sign and counts as 4294967291"},
                   {"+5", "'+5' has blanks or a sign before the number and counts as 5"},
                   {" 5", "' 5' has blanks or a sign before the number and counts as 5"},
                   {"4294967295", "4294967295 seconds are taken for a negative number"}});
  expect_no_findings("max_connection_delay=", {"2147483647"});
}

// "0F" counts as 0, "0xFg" as 15, 16 names no category, "0X0f" is fine.
TEST_F(ConfigCheckTest, LogLevelsAreReadAsTheDaemonReadsThem) {
  expect_findings("log_level=", {{"0x", "0x has no digits behind it and counts as 0"},
                                 {"0F", "'0F' has 'F' behind the number and counts as 0"},
                                 {"0xFg", "'Fg' has 'g' behind the number and counts as 15"},
                                 {"16", "'16' has bits that name no category"},
                                 {"0xFFFF", "'0xFFFF' has bits that name no category"}});
  expect_no_findings("log_level=", {"0X0f"});
}

// Initial above maximum, 0, largest 0 or 1, and either key missing are warnings.
TEST_F(ConfigCheckTest, DelaysThatDoNotWorkTogetherAreWarnedOf) {
  expect_warning(with_delays("90", "60"),
                 "2: warning: the initial delay 90 is above the maximum 60");
  expect_warning(with_delays("0", "60"), "2: warning: the initial delay is 0");
  expect_warning(with_delays("2", "0"), "3: warning: the largest delay is 0");
  expect_warning(with_delays("1", "1"), "3: warning: the largest delay is 1");
  expect_warning(good_url, " warning: without max_connection_delay=");
  expect_warning(good_url, " warning: without initial_connection_delay=");
}

// From 402 seconds on, and not at 401, the first wait is said to be possibly above 600 seconds.
TEST_F(ConfigCheckTest, DelaysThatLookLikeMillisecondsAreWarnedOf) {
  // 5000 and 60000 were taken without a word, and a device came back after up to two hours.
  expect_warning(with_delays("5000", "60000"),
                 "2: warning: the first wait can be 7499 seconds; delays are in seconds, not in "
                 "milliseconds: give the seconds that are meant\n");
  EXPECT_EQ(check(with_delays("401", "7200")).verdict, config_verdict::usable);
  expect_warning(with_delays("402", "7200"), "2: warning: the first wait can be 602 seconds");
}

// The windows of -5 are [-2;3), then that of the maximum, with "below 1 there is no wait".
TEST_F(ConfigCheckTest, NegativeDelaysAreShownAsTheDaemonTakesThem) {
  // The window stood there as [4294967294;4294967289), which nobody can read, and which is not the
  // range of the numbers either: the remainder of a division by -5 is not negative.
  EXPECT_THAT(check(with_delays("-5", "60")).report,
              AllOf(Not(HasSubstr("milliseconds")),
                    HasSubstr("2: warning: initial_connection_delay: '-5' has a sign"),
                    HasSubstr("  initial delay   -5 s (from 4294967291)\n"),
                    HasSubstr("  first delays    [-2;3) [30;90) [30;90) [30;90) [30;90) seconds; "
                              "below 1 there is no wait\n")));
}

// Beyond 2147483647, where the daemon's number turns negative, "there is no wait".
TEST_F(ConfigCheckTest, WaitsBeyond31BitsAreSaidToBeNone) {
  EXPECT_THAT(
      check(with_delays("2147483647", "2")).report,
      HasSubstr("  first delays    [1073741823;3221225470) [1;3) [1;3) [1;3) [1;3) seconds; "
                "beyond 2147483647 there is no wait\n"));
}

// "0x0F" and 8 are said to put the contents of messages into the log; 7 is not.
TEST_F(ConfigCheckTest, LogThatShowsTheContentsOfMessagesIsWarnedOf) {
  // A device's log was copied into a report, with everything that its service had sent.
  for (const char *level : {"8", "0x0F", "0X0f"})
    expect_warning(good + "log_level=" + level + "\n",
                   "4: warning: the debugging category, 8, puts the contents of messages into the "
                   "log; leave it out once the fault is found\n");
  EXPECT_EQ(check(good + "log_level=7\n").verdict, config_verdict::usable);
}

// A file of mode 0602 is warned of as a whole, also one that is not usable; 0660 is not.
TEST_F(ConfigCheckTest, FileThatEverybodyMayWriteIsWarnedOf) {
  const auto report_with = [this](const std::string &bytes, mode_t mode) {
    const std::string path = folder.write("vemk.conf", bytes);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return check_config(path).report;
  };
  const std::string warning = folder.file("vemk.conf") +
                              ": warning: everybody may write this file, and so choose the service "
                              "that the daemon trusts; close it with chmod o-w\n";
  EXPECT_THAT(report_with(good, 0602), AllOf(StartsWith(warning), HasSubstr("with 1 warning;")));
  EXPECT_THAT(report_with("# nothing\n", 0666), StartsWith(warning));
  EXPECT_THAT(report_with(good, 0660), HasSubstr(": usable; "));
}

// A second maximum on line 5 is in use, with a warning that names line 3.
TEST_F(ConfigCheckTest, LaterOfTwoLinesCounts) {
  expect_warning(good + "\nmax_connection_delay=30\n",
                 "5: warning: max_connection_delay= is on line 3 too, and this later one counts");
  EXPECT_THAT(check(good + "max_connection_delay=30\n").report, HasSubstr("maximum delay   30 s"));
}

// Beyond 254 bytes a line goes on as another; one of 254 bytes brings no finding.
TEST_F(ConfigCheckTest, RestOfALongLineIsReadAsANewOne) {
  expect_warning("#" + std::string(253, '-') + good,
                 "1: warning: the line is longer than 254 bytes");
  EXPECT_THAT(check("#" + std::string(253, '-') + good).report, HasSubstr("192.0.2.7"));
  EXPECT_THAT(findings("#" + std::string(253, '-') + "\n" + good), IsEmpty());
  EXPECT_THAT(findings("#" + std::string(900, '-') + "\nap_location= x\n"),
              ElementsAre(StartsWith("1: the line is longer"), StartsWith("2: ap_location: ")));
}

// A comment, quotation marks and blanks become part of the value and are named.
TEST_F(ConfigCheckTest, LocationsAreTakenAsTheyStand) {
  expect_no_findings("ap_location=", {"a b"});
  expect_findings("ap_location=", {{"a # b", "the comment behind"},
                                   {"\"a\"", "the quotation marks"},
                                   {"a ", "blanks around the value"}});
}

// CR LF, lone CR, NUL, control bytes, byte order marks and the empty file, once each.
TEST_F(ConfigCheckTest, FilesThatAreNotPlainTextAreNamedOnce) {
  expect_warning("# a\r\n# b\r\n" + good, "1: warning: the line ends in CR LF");
  EXPECT_THAT(findings("# a\r\n# b\r\n" + good), ElementsAre(StartsWith("1: the line ends in")));
  for (const char *file : {"# a\r# b\r# c\r", "log_level=1\r"})
    EXPECT_THAT(findings(file), ElementsAre(HasSubstr("does not end a line")));
  EXPECT_THAT(findings(std::string("ap_location=a\0b\n\0\n", 18)),
              ElementsAre(StartsWith("1: a NUL byte hides the rest")));
  EXPECT_THAT(findings("\x7F\x45LF\n\x01\x02=\n"), ElementsAre(StartsWith("1: a control byte")));
  EXPECT_THAT(findings("\xEF\xBB\xBF# comment\n"), Contains(StartsWith("1: a byte order mark")));
  EXPECT_THAT(findings("\xFF\xFEr\n"), Contains(StartsWith("0: this looks like UTF-16")));
  expect_unusable("", " warning: the file is empty");
}

// A folder and a missing file: "the daemon would end at once".
TEST_F(ConfigCheckTest, WhatIsNoFileIsUnusable) {
  const auto verdict_of = [](const std::string &path, const std::string &text) {
    const config_check_t result = check_config(path);
    EXPECT_EQ(result.verdict, config_verdict::unusable);
    EXPECT_THAT(result.report, StartsWith(path + ": error: " + text));
    EXPECT_THAT(result.report, HasSubstr(": not usable: the daemon would end at once"));
  };
  verdict_of(folder.path(), "is a folder");
  verdict_of(folder.file("missing.conf"), "cannot be opened: No such file or directory");
}

// A FIFO is an io_error and is not opened.
TEST_F(ConfigCheckTest, PipeIsLeftAlone) {
  const std::string path = folder.file("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_THROW(check_config(path), io_error);
}

// Escape comes out as "\x1b" in findings and values, and U+009B as "\xc2\x9b".
TEST_F(ConfigCheckTest, ControlBytesReachNoTerminal) {
  const std::string report = check("\x1b[31m=1\n" + good + "ap_location=\x1b[2J\n").report;
  EXPECT_THAT(report, AllOf(Not(HasSubstr("\x1b")), HasSubstr("location        \\x1b[2J\n")));
  const std::string c1 = check("\xc2\x9bH=1\n" + good + "ap_location=\xc3\x80\xc2\x9bH\n").report;
  EXPECT_THAT(
      c1, AllOf(Not(HasSubstr("\xc2\x9b")), HasSubstr("location        \xc3\x80\\xc2\\x9bH\n")));
}

} // namespace
} // namespace vemk
