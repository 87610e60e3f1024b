#include "child_process.h"

#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace vemk {

pid_t start_child(const std::function<void()> &work) {
  const pid_t child = fork();
  if (child < 0)
    throw std::runtime_error("fork");
  if (child == 0) {
    work();
    _exit(0);
  }
  return child;
}

int wait_for_child(pid_t child) {
  int status = 0;
  if (waitpid(child, &status, 0) != child)
    throw std::runtime_error("waitpid");
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

child_result_t run_in_child(const std::function<void()> &work) {
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
  return {child, wait_for_child(child), output};
}

std::string read_to_end(int descriptor) {
  std::string result;
  char chunk[65536];
  for (ssize_t length = 0; (length = read(descriptor, chunk, sizeof chunk)) > 0;)
    result.append(chunk, static_cast<size_t>(length));
  return result;
}

} // namespace vemk
