#ifndef VEMK_ROAM_SERVICE_LINE_INPUT_H
#define VEMK_ROAM_SERVICE_LINE_INPUT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vemk {

/// Reads the lines of a descriptor, for a caller who waits for input himself.
///
/// The line end is not part of a line; a last line without one counts. End of input is no event:
/// lines just stop coming.
///
/// Threading: none of its own.
/// Ownership: the descriptor stays the caller's.
/// Errors: count as the end of input. A line longer than `longest_line_bytes` is dropped with a
///   note on standard error.
class line_input {
public:
  static constexpr size_t longest_line_bytes = 256U * 1024 * 1024;

  explicit line_input(int descriptor) : input(descriptor) {}

  /// What to wait for with poll(); negative, which poll() passes over, after the end of input.
  int descriptor() const { return input; }

  /// Reads once and returns the lines that are complete with it, oldest first. To be called when
  /// there is input, or it blocks.
  std::vector<std::string> read_some();

private:
  void end_line(std::vector<std::string> &lines);

  int input;
  std::string line;
  bool too_long = false;
};

} // namespace vemk

#endif
