/// vemkctl check-config: what the daemon makes of a configuration file.
#ifndef VEMKCTL_CONFIG_CHECK_H
#define VEMKCTL_CONFIG_CHECK_H

#include <string>

namespace vemk {

enum class config_verdict { usable, usable_with_warnings, unusable };

struct config_check_t {
  config_verdict verdict;
  /// For standard output: the findings by line, then what the daemon uses.
  std::string report;
};

/// Usable means that the daemon run with this file connects to the service that the file names, as
/// far as the file alone can tell. The daemon's own parser decides what is read from it, and so
/// `g_log_level` changes.
///
/// Errors: io_error for what is neither a file nor a folder, a pipe for instance, because the
/// parser
///   and this check could not both read it.
config_check_t check_config(const std::string &file_name);

} // namespace vemk

#endif
