/// The commands and options of vemkctl: one description for parsing, help and shell completion.
#ifndef VEMKCTL_COMMAND_DESCRIPTION_H
#define VEMKCTL_COMMAND_DESCRIPTION_H

#include "vemkctl/options.h"

namespace CLI {
class App;
}

namespace vemk {

/// Adds the commands and options to the parser, which was made for "vemkctl". Parsing writes into
/// `options`, which must live as long as the parser.
void describe_command_line(CLI::App &app, options_t &options);

} // namespace vemk

#endif
