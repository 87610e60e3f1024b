/// The PID file, through which a new instance of the daemon replaces the earlier one.
#ifndef VEMK_MAIN_PID_FILE_H
#define VEMK_MAIN_PID_FILE_H

namespace vemk {

/// Sends SIGTERM to the process whose PID is in the PID file, without a check that it is an
/// instance of the daemon. Then writes this process's PID there. Never fails: a file that cannot be
/// read or written is skipped.
void replace_earlier_instance();

} // namespace vemk

#endif
