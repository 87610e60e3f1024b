/// The options of a command line of vemkctl, and the exit statuses of its commands.
#ifndef VEMKCTL_OPTIONS_H
#define VEMKCTL_OPTIONS_H

#include <string>

namespace vemk {

enum class command { send, listen, status, rejoin, check_config };
enum class message_format { text, hex, json };

struct options_t {
  command what = command::status;
  std::string bus_folder; // empty: the default
  int module_id = 2;
  double timeout_seconds = 0; // 0: none
  bool quiet = false;

  std::string text; // send; "-" is standard input
  bool lines = false;

  long count = 0; // listen; 0: no limit
  message_format format = message_format::text;

  std::string config_file; // check_config
};

/// Exit statuses. 1 and 2 answer the command's question, the rest report a failure.
enum exit_status {
  exit_done = 0,
  exit_disconnected = 1,
  exit_usable_with_warnings = 1,
  exit_timeout = 2,
  exit_unusable = 2,
  exit_bus_error = 3,
  exit_io_error = 4,
  exit_usage = 64,
};

} // namespace vemk

#endif
