#ifndef VEMK_TESTS_ZANDOR_LOG_CHILD_PROCESS_H
#define VEMK_TESTS_ZANDOR_LOG_CHILD_PROCESS_H

#include <functional>
#include <string>
#include <sys/types.h>

namespace vemk {

/// Runs `work` in a child process, which exits with status 0 after it. Returns its process ID.
pid_t start_child(const std::function<void()> &work);

/// Waits for a child. Returns its exit status, or minus the signal that ended it.
int wait_for_child(pid_t child);

struct child_result_t {
  pid_t child;
  int status;
  std::string error_output;
};

/// Runs `work` in a child process with its standard error captured.
child_result_t run_in_child(const std::function<void()> &work);

std::string read_to_end(int descriptor);

} // namespace vemk

#endif
