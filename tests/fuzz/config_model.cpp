#include "fuzz/config_model.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "fakes/fake_log.h"
#include "fuzz/expect.h"
#include "log/log_module.h"

namespace vemk::fuzz {

namespace {

constexpr std::size_t longest_piece = 254;
constexpr std::size_t longest_text = 255;
constexpr std::int64_t far_too_large = std::numeric_limits<std::int64_t>::max() / 32;

char lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/// Whether the text begins with `beginning`, which is in lower case, in any letter case.
bool begins_with(const std::string &text, const std::string &beginning) {
  return text.size() >= beginning.size() &&
         std::equal(beginning.begin(), beginning.end(), text.begin(),
                    [](char expected, char letter) { return expected == lower(letter); });
}

/// The digit's value, or `base` for what is no digit of it.
int digit_value(char letter, int base) {
  const std::size_t value = std::string("0123456789abcdef").find(lower(letter));
  return value < static_cast<std::size_t>(base) ? static_cast<int>(value) : base;
}

struct number_text {
  bool is_negative;
  /// Cut off at a value that no field holds.
  std::int64_t size;
};

/// Blanks, a sign, for base 16 a prefix that is followed by a digit, digits.
number_text read_number(const std::string &text, int base) {
  std::size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
  const auto letter = [&text](std::size_t index) {
    return index < text.size() ? text[index] : '\0';
  };
  const bool is_negative = letter(at) == '-';
  if (letter(at) == '-' || letter(at) == '+')
    ++at;
  if (base == 16 && letter(at) == '0' && lower(letter(at + 1)) == 'x' &&
      digit_value(letter(at + 2), base) < base)
    at += 2;
  std::int64_t size = 0;
  for (; digit_value(letter(at), base) < base; ++at)
    size = std::min(size * base + digit_value(letter(at), base), far_too_large);
  return {is_negative, size};
}

/// The unsigned number of a machine whose long has 32 bits: too large a one is the largest, a minus
/// sign negates within 32 bits.
std::uint32_t unsigned_of(const std::string &text, int base = 10) {
  const number_text number = read_number(text, base);
  if (number.size > std::numeric_limits<std::uint32_t>::max())
    return std::numeric_limits<std::uint32_t>::max();
  const auto size = static_cast<std::uint32_t>(number.size);
  return number.is_negative ? 0U - size : size;
}

std::int32_t signed_of(const std::string &text) {
  const number_text number = read_number(text, 10);
  const std::int64_t value = number.is_negative ? -number.size : number.size;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(
      value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
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
  std::string piece;
  for (const char byte : bytes) {
    piece += byte;
    if (byte == '\n' || piece.size() == longest_piece) {
      pieces.push_back(piece);
      piece.clear();
    }
  }
  if (!piece.empty())
    pieces.push_back(piece);
  for (std::string &each : pieces)
    each.resize(std::min(each.find('\0'), each.size()));
  return pieces;
}

template<std::size_t size>
std::string text_of(const char (&field)[size]) {
  return std::string(field, strnlen(field, size));
}

template<std::size_t size>
void put_text(char (&field)[size], const std::string &text) {
  memcpy(field, text.c_str(), std::min(text.size() + 1, size));
}

} // namespace

bool config_model::read_file(const std::optional<std::string> &bytes) {
  ap_location = "default-domain";
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
    initial_connection_delay = unsigned_of(value);
    break;
  case config_key::max_delay:
    max_connection_delay = unsigned_of(value);
    break;
  case config_key::location:
    ap_location = without_line_end(value);
    break;
  case config_key::log_level:
    log_level = begins_with(value, "0x") ? unsigned_of(value.substr(2), 16) : unsigned_of(value);
    process_level = log_level;
    module_mask = log_level;
    break;
  case config_key::whole_messages:
    whole_messages = unsigned_of(value) != 0;
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
    host = url_host;
    path = "/" + *url_path;
    port = signed_of(*url_port);
    url_valid = true;
  }
  host = without_line_end(host);
  path = without_line_end(path);
  return true;
}

bool config_model::read_options(const std::vector<std::string> &options, const std::string &file) {
  const std::uint32_t kept_level = log_level;
  *this = config_model{};
  log_level = kept_level;
  process_level = g_log_level;
  cfg_mode = 3;
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
      host = argument.substr(0, longest_text);
    if (option[1] == 'p')
      path = argument.substr(0, longest_text);
    if (option[1] == 'P')
      port = signed_of(argument);
  }
  if (name) {
    const bool exists = *name == "vemk.conf";
    cfg_file_failed = !read_file(exists ? std::optional<std::string>(file) : std::nullopt);
  }
  return true;
}

void expect_same(const config_model &model, const websock_cfg_t &cfg) {
  // Each field by name, so that a new one that is not compared does not compile.
  const auto &[ap_location, host, path, port, url_valid, initial_connection_delay,
               max_connection_delay, log_level, cfg_mode, cfg_file_failed, whole_messages] = cfg;
  expect_equal("ap_location", model.ap_location, text_of(ap_location));
  expect_equal("host", model.host, text_of(host));
  expect_equal("path", model.path, text_of(path));
  expect_equal("port", model.port, port);
  expect_equal("url_valid", model.url_valid, url_valid);
  expect_equal("initial_connection_delay", model.initial_connection_delay,
               initial_connection_delay);
  expect_equal("max_connection_delay", model.max_connection_delay, max_connection_delay);
  expect_equal("log_level", model.log_level, log_level);
  expect_equal("cfg_mode", model.cfg_mode, cfg_mode);
  expect_equal("cfg_file_failed", model.cfg_file_failed, cfg_file_failed);
  expect_equal("whole_messages", model.whole_messages, whole_messages);
  expect_equal("g_log_level", model.process_level, g_log_level);
  expect_equal("the log", model.logged, fake_log::messages("websock-cfg"));
}

websock_cfg_t record_of(const config_model &model) {
  websock_cfg_t cfg{};
  put_text(cfg.ap_location, model.ap_location);
  put_text(cfg.host, model.host);
  put_text(cfg.path, model.path);
  cfg.port = model.port;
  cfg.url_valid = model.url_valid;
  cfg.initial_connection_delay = model.initial_connection_delay;
  cfg.max_connection_delay = model.max_connection_delay;
  cfg.log_level = model.log_level;
  cfg.cfg_mode = model.cfg_mode;
  cfg.cfg_file_failed = model.cfg_file_failed;
  cfg.whole_messages = model.whole_messages;
  return cfg;
}

} // namespace vemk::fuzz
