/// Shell completion written from a parser's own description of commands and options.
#ifndef VEMK_COMPLETIONS_BASH_COMPLETION_H
#define VEMK_COMPLETIONS_BASH_COMPLETION_H

#include <string>

namespace CLI {
class App;
}

namespace vemk {

/// Returns a bash script that completes the commands, options and values of the app's program.
///
/// A value's type name says how it is completed: "a|b|c" by these words, FILE by files, DIR by
/// folders, any other not at all; a positional is named instead of typed. Options and commands of
/// the empty group, which help hides, are left out. Needs nothing but bash.
/// REQUIRES: names are plain words, without quotes or blanks; commands have no commands of theirs.
std::string bash_completion(const CLI::App &app);

} // namespace vemk

#endif
