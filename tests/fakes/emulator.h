/// How a test runs another program of the processor that it is itself built for.
#ifndef VEMK_TESTS_FAKES_EMULATOR_H
#define VEMK_TESTS_FAKES_EMULATOR_H

#include <string>
#include <vector>

namespace vemk {

/// The words of a command line that runs the program at `path`: the path alone, or behind the
/// emulator of a cross build. Linked with it, execv puts the emulator in front as well, so that
/// GoogleTest can start the test program anew for a death test.
std::vector<std::string> run_command(const std::string &path);

} // namespace vemk

#endif
