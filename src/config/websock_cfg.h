/// The daemon's configuration: one record, filled from the command line and a key=value file.
///
/// Threading: main's thread, before any other exists.
#ifndef VEMK_CONFIG_WEBSOCK_CFG_H
#define VEMK_CONFIG_WEBSOCK_CFG_H

#include <cstddef>
#include <cstdint>

namespace vemk {

constexpr std::size_t config_text_size = 256;

/// The order of the fields is fixed; a new one goes to the end. Texts are NUL-terminated. Numbers
/// are read as strtoul and atoi read them where long has 32 bits. A number that is too large
/// becomes the largest.
struct websock_cfg_t {
  /// Location (domain) of this access point.
  char ap_location[config_text_size];
  char host[config_text_size];
  /// Starts with "/" if it comes from the URL.
  char path[config_text_size];
  std::int32_t port;
  /// The file's URL gave host, port and path. Otherwise the daemon does not connect.
  bool url_valid;
  /// Seconds.
  std::uint32_t initial_connection_delay;
  /// Seconds.
  std::uint32_t max_connection_delay;
  /// Mask of log categories.
  std::uint32_t log_level;
  /// By design without a use: 3 once the options are parsed.
  std::int32_t cfg_mode;
  /// By design without a use: the named file could not be opened, or held a URL with a wrong
  /// scheme.
  bool cfg_file_failed;
  /// An empty last fragment ends a message, and a lost connection's partial message is forgotten.
  bool whole_messages;
  /// The workers wait for events, instead of pausing for 100 ms.
  bool event_pacing;
};

/// Fills the record from the options "f:d:p:P:", then from the file that -f named, whose URL
/// replaces -d, -p and -P. Ends the process with exit(-1) on a bad option. A file that cannot be
/// used leaves `url_valid` clear and sets `cfg_file_failed`.
void parse_command_line(websock_cfg_t &cfg, int argc, char **argv);

/// Reads a configuration file into the record, and "log_level=" into `g_log_level` as well. Returns
/// false when the file cannot be opened, or at a URL whose scheme is not "ws". The settings of
/// earlier lines then stay. A line that does not start with a known key is ignored.
bool read_config_file(websock_cfg_t &cfg, const char *file_name);

} // namespace vemk

#endif
