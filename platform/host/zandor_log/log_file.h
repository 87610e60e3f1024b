#ifndef VEMK_ZANDOR_LOG_LOG_FILE_H
#define VEMK_ZANDOR_LOG_LOG_FILE_H

#include "zandor_log/line_writer.h"

#include <string>
#include <string_view>
#include <sys/types.h>

namespace vemk {

/// A log file that is rotated by size: NAME.1 is the youngest older file, NAME.4 the oldest.
///
/// Several processes may write the same file, each with an object of its own. The lock of the file
/// at the path is held from the check of its size to the end of the write. A process that gets the
/// lock of a file that has been renamed or removed opens the path again. Without the lock the line
/// is written, but the file is not rotated.
///
/// A symbolic link at the path is not followed, and a file that others own or may write is not
/// used. Otherwise another user could redirect or read the lines. Only a device may be open to
/// others.
///
/// Threading: none of its own; one call at a time.
/// Ownership: owns its descriptor.
/// Errors: see write_line().
class log_file {
public:
  static constexpr off_t rotation_bytes = 1024 * 1024;
  static constexpr int older_files_kept = 4;

  explicit log_file(std::string file_path);
  ~log_file();
  log_file(const log_file &) = delete;
  log_file &operator=(const log_file &) = delete;

  /// Writes `line`, which ends with a line end. Returns false when the path cannot be opened or may
  /// not be trusted. Then nothing is written, and fault() has the reason; each call tries again. A
  /// line that an open file does not take (a full disk) is lost. Throws std::bad_alloc.
  bool write_line(std::string_view line);

  /// Why the last write_line() returned false; it may be read until the next one.
  const std::string &fault() const { return open_fault; }

private:
  bool open_if_closed();
  void close_if_open() noexcept;
  bool is_still_at_path() const noexcept;
  bool is_link() const noexcept;
  bool is_full_for(std::string_view line) const noexcept;
  bool rotate() const;

  const std::string path;
  std::string open_fault;
  int descriptor = -1;
  line_writer writer;
};

} // namespace vemk

#endif
