/// The PID file, by which a new instance of the daemon replaces the earlier one.
#ifndef VEMK_MAIN_PID_FILE_H
#define VEMK_MAIN_PID_FILE_H

namespace vemk {

/// Sends SIGTERM to the process whose PID stands in the PID file, whoever that is by now, and
/// writes this process's PID there. Never fails: a file that cannot be read or written is skipped.
void replace_earlier_instance();

} // namespace vemk

#endif
