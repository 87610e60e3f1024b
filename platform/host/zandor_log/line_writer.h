#ifndef VEMK_ZANDOR_LOG_LINE_WRITER_H
#define VEMK_ZANDOR_LOG_LINE_WRITER_H

#include <chrono>
#include <string_view>

namespace vemk {

/// Writes lines to a descriptor so that each stays one unit among several writing processes.
///
/// A line goes out with one write(2), which the kernel keeps whole on a regular file opened for
/// appending. Where it would not (a pipe and a line longer than PIPE_BUF), an advisory record lock
/// on the descriptor keeps the processes apart.
///
/// Threading: none of its own; one call at a time. Between processes as said above.
/// Ownership: the descriptor stays the caller's.
/// Errors: what cannot be written is lost; the line after a cut one starts on a new line.
class line_writer {
public:
  static constexpr std::chrono::milliseconds file_lock_patience{100};

  /// Takes the lock of `descriptor`. Once the wait for it was in vain the next calls do not wait at
  /// all until one succeeds, so that a stopped holder costs its wait only once.
  bool lock(int descriptor, std::chrono::milliseconds longest_wait = file_lock_patience) noexcept;
  void unlock(int descriptor) noexcept;

  /// Writes `line`, which ends with a line end, under the lock where the kind of file needs it.
  /// REQUIRES: the caller does not hold the lock of a pipe.
  void write(int descriptor, std::string_view line) noexcept;

private:
  void write_unit(int descriptor, std::string_view line) noexcept;

  bool patient = true;
  bool cut = false;
};

} // namespace vemk

#endif
