/// The commands of vemkctl.
#ifndef VEMKCTL_COMMANDS_H
#define VEMKCTL_COMMANDS_H

#include <cstddef>
#include <stdexcept>
#include <string>

#include "vemkctl/options.h"

namespace vemk {

/// Standard input or output has failed, in the form "what happened; what to do".
class io_error : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// Runs the command on the standard streams and returns its exit status.
/// Errors: bus_error, io_error. REQUIRES: SIGPIPE is ignored.
int run_command(const options_t &options);

/// Writes all of it to standard output at once. Errors: io_error.
void write_output(const char *data, std::size_t length);

/// Writes "vemkctl: ...", ended by a line feed, to standard error.
void write_note(const std::string &text);

} // namespace vemk

#endif
