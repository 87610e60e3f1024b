#include "zandor_log/line_writer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <thread>
#include <unistd.h>

namespace vemk {
namespace {

using std::chrono::steady_clock;
// Longer than for a file: while the reader of a pipe is slow, the write itself would wait as long.
constexpr std::chrono::milliseconds pipe_lock_patience{1000};
constexpr std::chrono::microseconds first_lock_pause{20};
constexpr std::chrono::microseconds longest_lock_pause{250};
constexpr std::chrono::microseconds pause_for_others{500};
constexpr int writable_patience_ms = 100;

// A record lock, because it belongs to the process: with flock(), two processes that inherited one
// standard error would share the lock.
bool set_lock(int descriptor, short type) noexcept {
  struct flock whole {};
  whole.l_type = type;
  whole.l_whence = SEEK_SET;
  return fcntl(descriptor, F_SETLK, &whole) == 0;
}

bool is_pipe(int descriptor) noexcept {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode);
}

// True when writing may be tried again after the error in errno.
bool may_continue(int descriptor) noexcept {
  if (errno == EINTR)
    return true;
  if (errno != EAGAIN)
    return false;
  pollfd wanted{descriptor, POLLOUT, 0};
  return poll(&wanted, 1, writable_patience_ms) > 0;
}

} // namespace

bool line_writer::lock(int descriptor, std::chrono::milliseconds longest_wait) noexcept {
  const auto deadline = steady_clock::now() + longest_wait;
  auto pause = first_lock_pause;
  while (!set_lock(descriptor, F_WRLCK)) {
    const bool held_elsewhere = errno == EAGAIN || errno == EACCES || errno == EINTR;
    if (!held_elsewhere || !patient || steady_clock::now() >= deadline) {
      patient = false;
      return false;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, longest_lock_pause);
  }
  patient = true;
  return true;
}

void line_writer::unlock(int descriptor) noexcept {
  set_lock(descriptor, F_UNLCK);
}

void line_writer::write(int descriptor, std::string_view line) noexcept {
  const bool needs_lock = line.size() >= PIPE_BUF && is_pipe(descriptor);
  const bool locked = needs_lock && lock(descriptor, pipe_lock_patience);
  write_unit(descriptor, line);
  if (!locked)
    return;
  unlock(descriptor);
  // A waiting process only tries from time to time. Without this pause a busy writer would always
  // be first again.
  std::this_thread::sleep_for(pause_for_others);
}

void line_writer::write_unit(int descriptor, std::string_view line) noexcept {
  // writev() writes the missing line end of a cut line in the same system call.
  iovec parts[2] = {{const_cast<char *>("\n"), cut ? 1U : 0U},
                    {const_cast<char *>(line.data()), line.size()}};
  bool begun = false;
  while (parts[0].iov_len + parts[1].iov_len > 0) {
    const ssize_t written = writev(descriptor, parts, 2);
    if (written < 0 && may_continue(descriptor))
      continue;
    if (written <= 0)
      break;
    begun = true;
    auto rest = static_cast<size_t>(written);
    for (iovec &part : parts) {
      const size_t taken = std::min(rest, part.iov_len);
      part.iov_base = static_cast<char *>(part.iov_base) + taken;
      part.iov_len -= taken;
      rest -= taken;
    }
  }
  if (begun)
    cut = parts[1].iov_len > 0 && parts[1].iov_len < line.size();
}

} // namespace vemk
