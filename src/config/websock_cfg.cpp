#include "config/websock_cfg.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <strings.h>
#include <unistd.h>

#include "config/config_keys.h"
#include "config/number.h"
#include "config/service_url.h"
#include "log/log_module.h"

namespace vemk {

namespace {

log_module_t log_module;
const log_module_setup module_setup(log_module, "websock-cfg");

constexpr std::uint32_t every_category = 0xFFFF;
constexpr std::int32_t initial_cfg_mode = 3;
constexpr std::size_t line_buffer_size = 255;
constexpr char default_location[] = "default-domain";

/// Copies a text, cut where the record's field ends.
void copy_text(char (&field)[config_text_size], const char *text) {
  snprintf(field, sizeof field, "%s", text);
}

void cut_at_line_end(char *text) {
  text[strcspn(text, "\r\n")] = '\0';
}

/// Returns false when the URL has a scheme that is not supported.
bool read_service_url(websock_cfg_t &cfg, char *value) {
  const service_url_t url = split_service_url(value);
  if (url.scheme != nullptr && strcmp(url.scheme, "ws") != 0) {
    log_debug(log_module, "Proto %s is invalid\n", url.scheme);
    return false;
  }
  if (url.port != nullptr && url.path != nullptr) {
    copy_text(cfg.host, url.host);
    snprintf(cfg.path, sizeof cfg.path, "/%s", url.path);
    cfg.port = signed_number(url.port);
    cfg.url_valid = true;
  }
  cut_at_line_end(cfg.host);
  cut_at_line_end(cfg.path);
  return true;
}

bool read_initial_delay(websock_cfg_t &cfg, char *value) {
  cfg.initial_connection_delay = unsigned_number(value, 10);
  return true;
}

bool read_max_delay(websock_cfg_t &cfg, char *value) {
  cfg.max_connection_delay = unsigned_number(value, 10);
  return true;
}

bool read_location(websock_cfg_t &cfg, char *value) {
  copy_text(cfg.ap_location, value);
  cut_at_line_end(cfg.ap_location);
  return true;
}

bool read_log_level(websock_cfg_t &cfg, char *value) {
  const bool is_hexadecimal = strncasecmp(value, "0x", 2) == 0;
  cfg.log_level = is_hexadecimal ? unsigned_number(value + 2, 16) : unsigned_number(value, 10);
  g_log_level = cfg.log_level;
  log_set_level(log_module, cfg.log_level);
  return true;
}

bool read_whole_messages(websock_cfg_t &cfg, char *value) {
  cfg.whole_messages = unsigned_number(value, 10) != 0;
  return true;
}

bool read_pacing(websock_cfg_t &cfg, char *value) {
  cut_at_line_end(value);
  cfg.event_pacing = strcasecmp(value, event_pacing_text) == 0;
  return true;
}

constexpr struct {
  const char *text;
  bool (*read)(websock_cfg_t &cfg, char *value);
} keys[] = {
    {text_of(config_key::service_url), read_service_url},
    {text_of(config_key::initial_delay), read_initial_delay},
    {text_of(config_key::max_delay), read_max_delay},
    {text_of(config_key::location), read_location},
    {text_of(config_key::log_level), read_log_level},
    {text_of(config_key::whole_messages), read_whole_messages},
    {text_of(config_key::pacing), read_pacing},
};
static_assert(std::size(keys) == config_key_count, "each key needs its reader");

bool read_line(websock_cfg_t &cfg, char *line) {
  for (const auto &key : keys) {
    const std::size_t length = strlen(key.text);
    if (strncasecmp(line, key.text, length) == 0)
      return key.read(cfg, line + length);
  }
  return true;
}

} // namespace

void parse_command_line(websock_cfg_t &cfg, int argc, char **argv) {
  const std::uint32_t kept_log_level = cfg.log_level;
  cfg = websock_cfg_t{};
  cfg.log_level = kept_log_level;
  cfg.cfg_mode = initial_cfg_mode;
  log_set_level(log_module, every_category);

  std::optional<std::string> file_name;
  optind = 1;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the options are parsed before a thread is started
  for (int option = 0; (option = getopt(argc, argv, "f:d:p:P:")) != -1;) {
    switch (option) {
    case 'f':
      file_name = optarg;
      break;
    case 'd':
      copy_text(cfg.host, optarg);
      break;
    case 'p':
      copy_text(cfg.path, optarg);
      break;
    case 'P':
      cfg.port = signed_number(optarg);
      break;
    default:
      exit(-1);
    }
  }
  if (file_name)
    cfg.cfg_file_failed = !read_config_file(cfg, file_name->c_str());
}

bool read_config_file(websock_cfg_t &cfg, const char *file_name) {
  copy_text(cfg.ap_location, default_location);
  g_log_level = 0;

  const std::unique_ptr<FILE, decltype(&fclose)> file(fopen(file_name, "r"), &fclose);
  if (!file)
    return false;
  char line[line_buffer_size];
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    if (!read_line(cfg, line))
      return false;
  }
  return true;
}

} // namespace vemk
