// What check-config says of generated files, against what the daemon makes of them.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/websock_cfg.h"
#include "fakes/temporary_folder.h"
#include "vemkctl/config_check.h"

namespace vemk {
namespace {

using testing::HasSubstr;

/// Another one can be tried with VEMK_SEED.
unsigned first_seed() {
  const char *const given = std::getenv("VEMK_SEED");
  return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 1;
}

/// Files that are right in most places, so that every kind of fault meets otherwise good lines.
class file_maker {
public:
  explicit file_maker(unsigned seed) : random(seed) {}

  std::string make() {
    std::string file = one_in(40) ? "\xEF\xBB\xBF" : "";
    const std::size_t lines = below(7);
    for (std::size_t i = 0; i < lines; ++i)
      file += joined({line(), line_end()});
    if (!one_in(5))
      file += "initial_connection_delay=2\nmax_connection_delay=60\n";
    file += one_in(3) ? url_line() : "";
    return file;
  }

private:
  std::size_t below(std::size_t limit) { return random() % limit; }
  bool one_in(std::size_t count) { return below(count) == 0; }

  /// The parts of a list are made from left to right, whatever the compiler: a seed is a file.
  static std::string joined(std::initializer_list<std::string> parts) {
    std::string whole;
    for (const std::string &part : parts)
      whole += part;
    return whole;
  }

  std::string usually(const char *usual, const std::vector<std::string> &others) {
    return one_in(6) ? others[below(others.size())] : usual;
  }

  std::string key(const std::string &name) {
    std::string upper = name;
    std::transform(name.begin(), name.end(), upper.begin(),
                   [](unsigned char byte) { return static_cast<char>(std::toupper(byte)); });
    const std::string usual = name + "=";
    return usually(usual.c_str(),
                   {upper + "=", " " + usual, name + " =", usual + " ", name.substr(1) + "=",
                    "#" + usual, ";" + usual, "\t" + usual, name, usual + usual});
  }

  std::string url_line() {
    return joined({key("roam_service_url"),
                   usually("ws://", {"", "", "wss://", "WS://", "://", "http://", " ws://",
                                     "ws:///", "ws:/", "\"ws://"}),
                   usually("192.0.2.7", {"", " ", "name.example", "256.300.1.1", "a b", "h/roam",
                                         "[::1]", "h\xC3\xB6st", "+x", "u:p@h", "\r", "h\r",
                                         std::string("\0", 1), "h\x01"}),
                   usually(":8080", {"", ":", ":0", ":70000", ":65536", ":-1", ":80x", ": 80", ":x",
                                     ":99999999999", ":-65536", ":+80"}),
                   usually("/roam", {"", "/", "/a b", "/a://b", "/a:1/", "//", "/\xC3\xB6", "/\r",
                                     "/roam # comment", "/roam#x"})});
  }

  std::string number() {
    return usually("12", {"", "0", "-1", "+1", " 1", "1 ", "1s", "0x1", "4294967295", "4294967296",
                          "99999999999999999999", "2147483648", "abc", "1\r"});
  }

  /// What a long line holds beyond the 254 bytes that are read at once.
  std::string long_line() {
    const std::string dashes(250 + below(8), '-');
    return "#" + dashes + (one_in(2) ? url_line() : number());
  }

  std::string garbage() {
    std::string bytes(below(40), ' ');
    for (char &byte : bytes)
      byte = static_cast<char>(below(256));
    return bytes;
  }

  std::string line() {
    switch (below(10)) {
    case 0:
      return joined({key("initial_connection_delay"), number()});
    case 1:
      return joined({key("max_connection_delay"), number()});
    case 2:
      return joined({key("ap_location"), usually("lobby", {"", " lobby", "a # b", "\"lobby\""})});
    case 3:
      return joined(
          {key("log_level"), usually("0x05", {"0x", "0X0F", "16", "0xg", "0F", "5 ", "-1", ""})});
    case 4:
      if (one_in(3))
        return joined({key("whole_messages"), usually("1", {"0", "2", "", "yes", "-1", " 1"})});
      if (one_in(3))
        return joined({key("pacing"), usually("event", {"steps", "Event", "", "fast", "event "})});
      return one_in(2) ? long_line() : "# a comment";
    case 5:
      return one_in(3) ? garbage() : "";
    default:
      return url_line();
    }
  }

  std::string line_end() {
    return usually("\n", {"\r\n", "\r\n", "\r", "", std::string("\0\n", 2), "\n\n"});
  }

  std::mt19937 random;
};

class ConfigVerdictTest : public testing::Test {
protected:
  /// The record as the daemon has it after its start with this file.
  static websock_cfg_t read_by_the_daemon(std::string path) {
    std::string name = "vemk";
    std::string option = "-f";
    char *argv[] = {name.data(), option.data(), path.data(), nullptr};
    websock_cfg_t cfg{};
    parse_command_line(cfg, 3, argv);
    return cfg;
  }

  /// With workers that run, what is left is whether an address can be had and a port be reached;
  /// the WebSocket library uses the port's lowest 16 bits.
  static bool daemon_would_connect(const websock_cfg_t &cfg) {
    const std::string host = cfg.host;
    const bool is_name = !host.empty() && host[0] != '[' &&
                         std::all_of(host.begin(), host.end(),
                                     [](unsigned char byte) { return byte > ' ' && byte != 0x7F; });
    const bool is_socket_path = !host.empty() && host[0] == '+';
    return cfg.url_valid && cfg.port % 65536 != 0 && is_name &&
           (is_socket_path || host.find('/') == std::string::npos);
  }

  /// Nothing in it that anyone would want to be told.
  static bool is_plain(const std::string &file) {
    static const std::regex plain_line(
        R"(|#[^\r]*|;[^\r]*|roam_service_url=(ws://)?[A-Za-z0-9.]+:[0-9]{1,5}/[!-"$-~]*|)"
        R"((initial|max)_connection_delay=[0-9]{1,10}|ap_location=[^\r]*|)"
        R"(log_level=([0-7]|0x0[0-7])|whole_messages=[01]|pacing=(steps|event))",
        std::regex::icase);
    std::istringstream lines(file);
    for (std::string line; std::getline(lines, line);) {
      if (line.size() > 254 || !std::regex_match(line, plain_line))
        return false;
    }
    return true;
  }

  temporary_folder folder;
};

// For 800 generated files the verdict is what the daemon's parser then makes of them.
TEST_F(ConfigVerdictTest, AgreesWithTheDaemonOnGeneratedFiles) {
  constexpr unsigned files = 800;
  std::map<config_verdict, int> verdicts;
  for (unsigned seed = first_seed(); seed < first_seed() + files; ++seed) {
    const std::string bytes = file_maker(seed).make();
    SCOPED_TRACE("VEMK_SEED=" + std::to_string(seed) + " makes: " + testing::PrintToString(bytes));
    const std::string path = folder.write("generated.conf", bytes);
    const websock_cfg_t cfg = read_by_the_daemon(path);

    const config_check_t check = check_config(path);
    ++verdicts[check.verdict];
    ASSERT_EQ(check.verdict != config_verdict::unusable, daemon_would_connect(cfg)) << check.report;
    if (check.verdict == config_verdict::usable) {
      ASSERT_TRUE(is_plain(bytes));
      ASSERT_THAT(check.report,
                  HasSubstr("  host            " + std::string(cfg.host) + "\n  port            " +
                            std::to_string(cfg.port) + "\n  path            " + cfg.path + "\n"));
    }
    if (check.verdict == config_verdict::usable_with_warnings) {
      ASSERT_THAT(check.report, HasSubstr(" warning: "));
    }
  }
  std::cout << "[ seeds from " << first_seed() << ": " << verdicts[config_verdict::usable]
            << " usable, " << verdicts[config_verdict::usable_with_warnings] << " with warnings, "
            << verdicts[config_verdict::unusable] << " not ]\n";
  for (const auto verdict :
       {config_verdict::usable, config_verdict::usable_with_warnings, config_verdict::unusable})
    EXPECT_GE(verdicts[verdict], static_cast<int>(files) / 50);
}

} // namespace
} // namespace vemk
