#ifndef VEMK_ZANDOR_LOG_LINE_WRITER_H
#define VEMK_ZANDOR_LOG_LINE_WRITER_H

#include <chrono>
#include <string_view>

namespace vemk {

/// Writes lines to a descriptor so that each stays one unit among several writing processes.
///
/// A line goes out with one write(2), which the kernel keeps whole on a regular file opened for
/// appending. For a pipe and a line longer than PIPE_BUF the kernel does not. There an advisory
/// record lock on the descriptor keeps the processes apart.
///
/// Threading: none of its own; one call at a time.
/// Ownership: the descriptor stays the caller's.
/// Errors: text that cannot be written is lost; the line after a cut one starts on a new line.
class line_writer {
public:
  static constexpr std::chrono::milliseconds file_lock_patience{100};

  /// Takes the lock of `descriptor`. After a wait without success the next calls do not wait,
  /// until one of them succeeds. So a stopped holder costs the wait only once.
  bool lock(int descriptor, std::chrono::milliseconds longest_wait = file_lock_patience) noexcept;
  void unlock(int descriptor) noexcept;

  /// Writes `line`, which ends with a line end, under the lock if the kind of file needs it.
  /// REQUIRES: the caller does not hold the lock of a pipe.
  void write(int descriptor, std::string_view line) noexcept;

private:
  void write_unit(int descriptor, std::string_view line) noexcept;

  bool patient = true;
  bool cut = false;
};

} // namespace vemk

#endif
