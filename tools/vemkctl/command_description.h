/// What vemkctl can be told, as the parser knows it: the one description behind parsing, help and
/// shell completion.
#ifndef VEMKCTL_COMMAND_DESCRIPTION_H
#define VEMKCTL_COMMAND_DESCRIPTION_H

#include "vemkctl/options.h"

namespace CLI {
class App;
}

namespace vemk {

/// Gives the parser, made for "vemkctl", its commands and options. Parsing writes into `options`,
/// which has to live as long as the parser.
void describe_command_line(CLI::App &app, options_t &options);

} // namespace vemk

#endif
