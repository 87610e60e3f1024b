/// The daemon's start-up sequence.
#ifndef VEMK_MAIN_STARTUP_H
#define VEMK_MAIN_STARTUP_H

namespace vemk {

/// Runs the daemon with main's arguments. This call owns all objects that live as long as the
/// process. Returns main's result: 0 at once when the configuration did not give a complete URL.
/// Otherwise it does not return in practice. Ends the process with status 255 on a bad option.
int run_daemon(int argc, char **argv);

} // namespace vemk

#endif
