#include "fuzz/config_model.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <strings.h>

#include "fakes/fake_log.h"
#include "fuzz/expect.h"
#include "log/log_module.h"

namespace vemk::fuzz {

namespace {

constexpr std::size_t longest_piece = 254;

/// `beginning` in any letter case.
bool begins_with(const std::string &text, const std::string &beginning) {
  return strncasecmp(text.c_str(), beginning.c_str(), beginning.size()) == 0;
}

/// Too large a number is the largest, a minus sign negates within 32 bits.
std::uint32_t unsigned_of(const std::string &text, int base = 10) {
  const long long value = strtoll(text.c_str(), nullptr, base);
  constexpr long long beyond = 1LL << 32;
  return value > -beyond && value < beyond ? static_cast<std::uint32_t>(value)
                                           : std::numeric_limits<std::uint32_t>::max();
}

std::int32_t signed_of(const std::string &text) {
  return static_cast<std::int32_t>(std::clamp<long long>(strtoll(text.c_str(), nullptr, 10),
                                                         std::numeric_limits<std::int32_t>::min(),
                                                         std::numeric_limits<std::int32_t>::max()));
}

std::string without_line_end(const std::string &text) {
  return text.substr(0, text.find_first_of("\r\n"));
}

/// Cuts `text` at the first `separator` and returns what followed it.
std::optional<std::string> cut_off(std::string &text, const std::string &separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string::npos)
    return std::nullopt;
  const std::string following = text.substr(at + separator.size());
  text.resize(at);
  return following;
}

/// The file's lines, long ones in pieces, each up to the first zero byte in it.
std::vector<std::string> pieces_of(const std::string &bytes) {
  std::vector<std::string> pieces;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t end = std::min(bytes.find('\n', at), bytes.size() - 1) + 1;
    const std::string piece = bytes.substr(at, std::min(end - at, longest_piece));
    at += piece.size();
    pieces.emplace_back(piece.c_str());
  }
  return pieces;
}

} // namespace

bool config_model::read_file(const std::optional<std::string> &bytes) {
  put_text(cfg.ap_location, "default-domain");
  process_level = 0;
  if (!bytes)
    return false;
  const std::vector<std::string> pieces = pieces_of(*bytes);
  return std::all_of(pieces.begin(), pieces.end(),
                     [this](const std::string &piece) { return read_line(piece); });
}

bool config_model::read_line(const std::string &line) {
  for (std::size_t i = 0; i < config_key_count; ++i) {
    const std::string key = config_key_texts[i];
    if (begins_with(line, key))
      return read_value(static_cast<config_key>(i), line.substr(key.size()));
  }
  return true;
}

bool config_model::read_value(config_key key, const std::string &value) {
  switch (key) {
  case config_key::service_url:
    return read_url(value);
  case config_key::initial_delay:
    cfg.initial_connection_delay = unsigned_of(value);
    break;
  case config_key::max_delay:
    cfg.max_connection_delay = unsigned_of(value);
    break;
  case config_key::location:
    put_text(cfg.ap_location, without_line_end(value));
    break;
  case config_key::log_level:
    cfg.log_level =
        begins_with(value, "0x") ? unsigned_of(value.substr(2), 16) : unsigned_of(value);
    process_level = cfg.log_level;
    module_mask = cfg.log_level;
    break;
  case config_key::whole_messages:
    cfg.whole_messages = unsigned_of(value) != 0;
    break;
  case config_key::pacing:
    cfg.event_pacing = strcasecmp(without_line_end(value).c_str(), "event") == 0;
    break;
  }
  return true;
}

bool config_model::read_url(const std::string &value) {
  std::string scheme = value;
  const std::optional<std::string> behind_scheme = cut_off(scheme, "://");
  std::string url_host = behind_scheme.value_or(value);
  std::optional<std::string> url_port = cut_off(url_host, ":");
  const std::optional<std::string> url_path = cut_off(url_port ? *url_port : url_host, "/");
  if (behind_scheme && scheme != "ws") {
    if ((module_mask & log_category_debug) != 0)
      logged.push_back("Proto " + scheme + " is invalid\n");
    return false;
  }
  if (url_port && url_path) {
    put_text(cfg.host, url_host);
    put_text(cfg.path, "/" + *url_path);
    cfg.port = signed_of(*url_port);
    cfg.url_valid = true;
  }
  put_text(cfg.host, without_line_end(cfg.host));
  put_text(cfg.path, without_line_end(cfg.path));
  return true;
}

bool config_model::read_options(const std::vector<std::string> &options, const std::string &file) {
  const std::uint32_t kept_level = cfg.log_level;
  *this = config_model{};
  cfg.log_level = kept_level;
  cfg.cfg_mode = 3;
  process_level = g_log_level;
  module_mask = 0xFFFF;

  std::optional<std::string> name;
  for (std::size_t i = 0; i < options.size(); ++i) {
    const std::string &option = options[i];
    if (option == "--")
      break;
    if (option.size() < 2 || option[0] != '-')
      continue;
    const bool takes_next = option.size() == 2;
    if (std::string("fdpP").find(option[1]) == std::string::npos ||
        (takes_next && i + 1 == options.size()))
      return false;
    const std::string argument = takes_next ? options[++i] : option.substr(2);
    if (option[1] == 'f')
      name = argument;
    if (option[1] == 'd')
      put_text(cfg.host, argument);
    if (option[1] == 'p')
      put_text(cfg.path, argument);
    if (option[1] == 'P')
      cfg.port = signed_of(argument);
  }
  if (name) {
    const bool exists = *name == "vemk.conf";
    cfg.cfg_file_failed = !read_file(exists ? std::optional<std::string>(file) : std::nullopt);
  }
  return true;
}

void config_model::expect_same(const websock_cfg_t &actual) const {
  // Each field by name, so that a new one that is not compared does not compile.
  const auto &[ap_location, host, path, port, url_valid, initial_connection_delay,
               max_connection_delay, log_level, cfg_mode, cfg_file_failed, whole_messages,
               event_pacing] = actual;
  expect_equal("ap_location", cfg.ap_location, ap_location);
  expect_equal("host", cfg.host, host);
  expect_equal("path", cfg.path, path);
  expect_equal("port", cfg.port, port);
  expect_equal("url_valid", cfg.url_valid, url_valid);
  expect_equal("initial_connection_delay", cfg.initial_connection_delay, initial_connection_delay);
  expect_equal("max_connection_delay", cfg.max_connection_delay, max_connection_delay);
  expect_equal("log_level", cfg.log_level, log_level);
  expect_equal("cfg_mode", cfg.cfg_mode, cfg_mode);
  expect_equal("cfg_file_failed", cfg.cfg_file_failed, cfg_file_failed);
  expect_equal("whole_messages", cfg.whole_messages, whole_messages);
  expect_equal("event_pacing", cfg.event_pacing, event_pacing);
  expect_equal("g_log_level", process_level, g_log_level);
  expect_equal("the log", logged, fake_log::messages("websock-cfg"));
}

} // namespace vemk::fuzz
