#include "zandor_log/log_file.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace vemk {
namespace {

// Others may rotate the file again and again between the opening and the lock.
constexpr std::chrono::milliseconds settle_patience{200};

std::string octal(mode_t mode) {
  char text[16];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// Only root can make a device, and several devices are for everybody.
bool may_be_trusted(const struct stat &status) noexcept {
  return S_ISCHR(status.st_mode) || ((status.st_uid == geteuid() || status.st_uid == 0) &&
                                     (status.st_mode & (S_IWGRP | S_IWOTH)) == 0);
}

std::string why_distrusted(const struct stat &status) {
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return "others may write it (mode " + octal(status.st_mode) + ")";
  return "it belongs to user " + std::to_string(status.st_uid) + ", not to user " +
         std::to_string(geteuid());
}

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

bool log_file::open_if_closed() {
  if (descriptor >= 0)
    return true;
  // O_NONBLOCK: a FIFO without a reader must not block the program.
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW;
  descriptor = open(path.c_str(), flags, 0600);
  if (descriptor < 0) {
    const int error = errno;
    open_fault = is_link() ? "it is a symbolic link" : std::generic_category().message(error);
    return false;
  }
  // The check uses the descriptor, so the file cannot change between the check and the write.
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && may_be_trusted(status))
    return true;
  close_if_open();
  open_fault = why_distrusted(status);
  return false;
}

void log_file::close_if_open() noexcept {
  if (descriptor >= 0)
    close(descriptor);
  descriptor = -1;
}

bool log_file::is_still_at_path() const noexcept {
  struct stat opened {};
  struct stat at_path {};
  return fstat(descriptor, &opened) == 0 && lstat(path.c_str(), &at_path) == 0 &&
         opened.st_dev == at_path.st_dev && opened.st_ino == at_path.st_ino;
}

bool log_file::is_link() const noexcept {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool log_file::is_full_for(std::string_view line) const noexcept {
  struct stat status {};
  // Only a regular file is renamed: the path may be a device.
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
