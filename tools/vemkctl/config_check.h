/// vemkctl check-config: how the daemon reads a configuration file.
#ifndef VEMKCTL_CONFIG_CHECK_H
#define VEMKCTL_CONFIG_CHECK_H

#include <string>

namespace vemk {

enum class config_verdict { usable, usable_with_warnings, unusable };

struct config_check_t {
  config_verdict verdict;
  /// For standard output: the findings by line, then the daemon's settings.
  std::string report;
};

/// Usable means that the daemon with this file connects to the service that the file names, judged
/// by the file alone. The check runs the daemon's own parser, which also sets `g_log_level`.
///
/// Errors: io_error for anything but a file or a folder, a pipe for instance, because the parser
///   and this check could not both read it.
config_check_t check_config(const std::string &file_name);

} // namespace vemk

#endif
