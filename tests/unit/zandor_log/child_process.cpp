#include "child_process.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace vemk {

temporary_folder::temporary_folder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zandor_log_XXXXXX").string();
  if (!mkdtemp(pattern.data()))
    throw std::runtime_error("mkdtemp");
  path = pattern;
}

temporary_folder::~temporary_folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

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

std::string file_content(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool file_exists(const std::string &path) {
  return access(path.c_str(), F_OK) == 0;
}

} // namespace vemk
