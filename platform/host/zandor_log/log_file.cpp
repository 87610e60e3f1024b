#include "zandor_log/log_file.h"

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vemk {
namespace {

// Others may rotate the file again and again between the opening and the lock.
constexpr std::chrono::milliseconds settle_patience{200};

} // namespace

log_file::log_file(std::string file_path) : path(std::move(file_path)) {}

log_file::~log_file() {
  close_if_open();
}

bool log_file::write_line(std::string_view line) {
  const auto deadline = std::chrono::steady_clock::now() + settle_patience;
  for (;;) {
    if (!open_if_closed())
      return false;
    const bool locked = writer.lock(descriptor);
    const bool in_time = std::chrono::steady_clock::now() < deadline;
    if (in_time && (!is_still_at_path() || (locked && is_full_for(line) && rotate()))) {
      close_if_open();
      continue;
    }
    writer.write(descriptor, line);
    if (locked)
      writer.unlock(descriptor);
    return true;
  }
}

bool log_file::open_if_closed() noexcept {
  if (descriptor >= 0)
    return true;
  // O_NONBLOCK: a FIFO without a reader must not hold up the program.
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  descriptor = open(path.c_str(), flags, 0600);
  return descriptor >= 0;
}

void log_file::close_if_open() noexcept {
  if (descriptor >= 0)
    close(descriptor);
  descriptor = -1;
}

bool log_file::is_still_at_path() const noexcept {
  struct stat opened {};
  struct stat at_path {};
  return fstat(descriptor, &opened) == 0 && stat(path.c_str(), &at_path) == 0 &&
         opened.st_dev == at_path.st_dev && opened.st_ino == at_path.st_ino;
}

bool log_file::is_full_for(std::string_view line) const noexcept {
  struct stat status {};
  // Only a regular file is ever renamed: the path may well be a device.
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
         status.st_size + static_cast<off_t>(line.size()) > rotation_bytes;
}

bool log_file::rotate() const {
  const auto older = [this](int age) { return path + "." + std::to_string(age); };
  for (int age = older_files_kept - 1; age >= 1; age--)
    std::rename(older(age).c_str(), older(age + 1).c_str());
  return std::rename(path.c_str(), older(1).c_str()) == 0;
}

} // namespace vemk
