/// Processes of a test's own.
#ifndef VEMK_TESTS_SUPPORT_CHILD_PROCESS_H
#define VEMK_TESTS_SUPPORT_CHILD_PROCESS_H

#include <functional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vemk {

/// Runs `work` in a child process, which exits with status 0 after it. Returns its process ID.
inline pid_t start_child(const std::function<void()> &work) {
  const pid_t child = fork();
  if (child < 0)
    throw std::runtime_error("fork");
  if (child == 0) {
    work();
    _exit(0);
  }
  return child;
}

/// Waits for a child. Returns its exit status, or minus the signal that ended it.
inline int wait_for_child(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) != child)
    throw std::runtime_error("waitpid");
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

inline std::string read_to_end(int descriptor) {
  std::string result;
  char chunk[65536];
  for (ssize_t length = 0; (length = read(descriptor, chunk, sizeof chunk)) > 0;)
    result.append(chunk, static_cast<size_t>(length));
  return result;
}

struct child_result_t {
  int status;
  std::string error_output;
};

/// Runs `work` in a child process with its standard error captured.
inline child_result_t run_in_child(const std::function<void()> &work) {
  int ends[2];
  if (pipe(ends) != 0)
    throw std::runtime_error("pipe");
  const pid_t child = start_child([&] {
    close(ends[0]);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    work();
  });
  close(ends[1]);
  const std::string output = read_to_end(ends[0]);
  close(ends[0]);
  return {wait_for_child(child), output};
}

} // namespace vemk

#endif
