/// vemkctl's command line: options, help and version.
#ifndef VEMKCTL_COMMAND_LINE_H
#define VEMKCTL_COMMAND_LINE_H

#include <optional>
#include <string>

#include "vemkctl/options.h"

namespace vemk {

/// Either options to run with, or a text to print and the status to exit with.
struct command_line_t {
  std::optional<options_t> options;
  std::string output; // for standard output: help or version
  std::string error;  // for standard error, without the program's name
  int status = exit_done;
};

/// Does not print and does not throw on bad input.
command_line_t parse_command_line(int argc, const char *const *argv);

} // namespace vemk

#endif
