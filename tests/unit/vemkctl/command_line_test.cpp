#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vemkctl/command_line.h"

namespace vemk {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

command_line_t parse(std::vector<const char *> arguments) {
  arguments.insert(arguments.begin(), "vemkctl");
  return parse_command_line(static_cast<int>(arguments.size()), arguments.data());
}

options_t options_of(const std::vector<const char *> &arguments) {
  const command_line_t line = parse(arguments);
  EXPECT_TRUE(line.options) << line.error;
  return line.options.value_or(options_t());
}

std::string refusal(const std::vector<const char *> &arguments) {
  const command_line_t line = parse(arguments);
  EXPECT_FALSE(line.options);
  EXPECT_EQ(line.output, "");
  EXPECT_EQ(line.status, exit_usage);
  EXPECT_THAT(line.error, EndsWith("; see vemkctl --help or vemkctl COMMAND --help"));
  return line.error;
}

// Module 2, a timeout of 10 seconds, the text as one message, no bus folder named.
TEST(CommandLineTest, SendHasDefaults) {
  const options_t options = options_of({"send", "hello"});
  EXPECT_EQ(options.what, command::send);
  EXPECT_EQ(options.text, "hello");
  EXPECT_EQ(options.module_id, 2);
  EXPECT_EQ(options.timeout_seconds, 10);
  EXPECT_FALSE(options.lines);
  EXPECT_EQ(options.bus_folder, "");
}

// --to 5, --lines, --timeout 0.5 and "-" for standard input.
TEST(CommandLineTest, SendTakesItsOptions) {
  const options_t options = options_of({"send", "--to", "5", "--lines", "--timeout", "0.5", "-"});
  EXPECT_EQ(options.text, "-");
  EXPECT_EQ(options.module_id, 5);
  EXPECT_TRUE(options.lines);
  EXPECT_EQ(options.timeout_seconds, 0.5);
}

// A command's name, the empty text, JSON, and "--lines" behind "--" are texts.
TEST(CommandLineTest, SendTakesAnyText) {
  EXPECT_EQ(options_of({"send", "status"}).text, "status");
  EXPECT_EQ(options_of({"send", "status"}).what, command::send);
  EXPECT_EQ(options_of({"send", ""}).text, "");
  EXPECT_EQ(options_of({"send", "--", "--lines"}).text, "--lines");
  EXPECT_EQ(options_of({"send", R"({"a":[1,2]})"}).text, R"({"a":[1,2]})");
}

// Count 0 and timeout 0 mean no end; the format is text.
TEST(CommandLineTest, ListenHasNoLimitUnlessAskedFor) {
  const options_t options = options_of({"listen"});
  EXPECT_EQ(options.what, command::listen);
  EXPECT_EQ(options.count, 0);
  EXPECT_EQ(options.timeout_seconds, 0);
  EXPECT_EQ(options.format, message_format::text);
  EXPECT_FALSE(options.quiet);
}

// --from, --count, --timeout, --format json or hex, and --quiet.
TEST(CommandLineTest, ListenTakesItsOptions) {
  const options_t options = options_of(
      {"listen", "--from", "7", "--count", "3", "--timeout", "2", "--format", "json", "--quiet"});
  EXPECT_EQ(options.module_id, 7);
  EXPECT_EQ(options.count, 3);
  EXPECT_EQ(options.timeout_seconds, 2);
  EXPECT_EQ(options.format, message_format::json);
  EXPECT_TRUE(options.quiet);
  EXPECT_EQ(options_of({"listen", "--format", "hex"}).format, message_format::hex);
}

// status waits 30 seconds, longer than an attempt to connect; rejoin 10; --module 4 means module 4.
TEST(CommandLineTest, StatusAndRejoinHaveDefaults) {
  EXPECT_EQ(options_of({"status"}).what, command::status);
  EXPECT_EQ(options_of({"status"}).timeout_seconds, 30);
  EXPECT_EQ(options_of({"rejoin"}).what, command::rejoin);
  EXPECT_EQ(options_of({"rejoin"}).timeout_seconds, 10);
  EXPECT_EQ(options_of({"rejoin", "--module", "4"}).module_id, 4);
}

// No file is "FILE is required", a second one "not expected: b".
TEST(CommandLineTest, CheckConfigTakesOneFile) {
  EXPECT_EQ(options_of({"check-config", "vemk.conf"}).what, command::check_config);
  EXPECT_EQ(options_of({"check-config", "vemk.conf"}).config_file, "vemk.conf");
  EXPECT_THAT(refusal({"check-config"}), HasSubstr("FILE is required"));
  EXPECT_THAT(refusal({"check-config", "a", "b"}), HasSubstr("not expected: b"));
}

// --bus /a counts before the command, behind it, behind the text, and as --bus=/a.
TEST(CommandLineTest, TheBusFolderMayStandBeforeOrAfterTheCommand) {
  EXPECT_EQ(options_of({"--bus", "/a", "send", "x"}).bus_folder, "/a");
  EXPECT_EQ(options_of({"send", "--bus", "/a", "x"}).bus_folder, "/a");
  EXPECT_EQ(options_of({"send", "x", "--bus", "/a"}).bus_folder, "/a");
  EXPECT_EQ(options_of({"status", "--bus=/a"}).bus_folder, "/a");
}

// Each wrong use names the word it is about and has the status for usage errors, 64.
TEST(CommandLineTest, RefusesWrongUsage) {
  EXPECT_THAT(refusal({}), HasSubstr("subcommand is required"));
  EXPECT_THAT(refusal({"send"}), HasSubstr("TEXT is required"));
  EXPECT_THAT(refusal({"send", "a", "b"}), HasSubstr("not expected: b"));
  EXPECT_THAT(refusal({"listen", "--count", "0"}), HasSubstr("--count"));
  EXPECT_THAT(refusal({"listen", "--count", "many"}), HasSubstr("--count"));
  EXPECT_THAT(refusal({"listen", "--timeout", "-1"}), HasSubstr("--timeout"));
  EXPECT_THAT(refusal({"listen", "--timeout", "nan"}), HasSubstr("--timeout"));
  EXPECT_THAT(refusal({"listen", "--format", "xml"}), HasSubstr("--format"));
  EXPECT_THAT(refusal({"listen", "--from", "-1"}), HasSubstr("--from"));
  EXPECT_THAT(refusal({"send", "--to", "4294967298", "x"}), HasSubstr("--to"));
  EXPECT_THAT(refusal({"status", "--count", "1"}), HasSubstr("not expected"));
  refusal({"fly"});
}

// COMMAND --help has status 0 and "Usage: vemkctl COMMAND"; --help names every command.
TEST(CommandLineTest, HelpGoesToStandardOutput) {
  for (const char *command : {"send", "listen", "status", "rejoin", "check-config"}) {
    const command_line_t line = parse({command, "--help"});
    EXPECT_FALSE(line.options);
    EXPECT_EQ(line.status, exit_done);
    EXPECT_EQ(line.error, "");
    EXPECT_THAT(line.output, HasSubstr(std::string("Usage: vemkctl ") + command));
    EXPECT_THAT(parse({"--help"}).output, HasSubstr(command));
  }
}

// --version begins with "vemkctl " and has status 0.
TEST(CommandLineTest, VersionGoesToStandardOutput) {
  EXPECT_THAT(parse({"--version"}).output, ::testing::StartsWith("vemkctl "));
  EXPECT_EQ(parse({"--version"}).status, exit_done);
}

} // namespace
} // namespace vemk
