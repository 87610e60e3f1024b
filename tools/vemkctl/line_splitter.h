/// Cuts a stream of bytes into lines.
#ifndef VEMKCTL_LINE_SPLITTER_H
#define VEMKCTL_LINE_SPLITTER_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace vemk {

/// Passes each line on as soon as its line feed has come, without the line feed. Other bytes stay
/// as they are.
///
/// Threading: none; the handler runs inside add() and finish().
/// Errors: a line of more than `longest_bytes` throws std::length_error, which names its number.
///   The handler's exceptions pass through.
class line_splitter {
public:
  line_splitter(std::size_t longest_bytes, std::function<void(std::string_view)> handler);

  void add(std::string_view bytes);

  /// Passes on a last line without a line feed.
  void finish();

private:
  void extend(std::string_view bytes);

  const std::size_t longest;
  const std::function<void(std::string_view)> take_line;
  std::string line;
  unsigned long line_number = 1;
};

} // namespace vemk

#endif
