/// The daemon's start-up sequence.
#ifndef VEMK_MAIN_STARTUP_H
#define VEMK_MAIN_STARTUP_H

namespace vemk {

/// Runs the daemon with main's arguments. Everything that lives as long as the process lives in
/// this call. Returns main's result: 0 at once when the configuration gave no complete URL, and
/// otherwise not in practice. Ends the process with status 255 on a bad option.
int run_daemon(int argc, char **argv);

} // namespace vemk

#endif
