/// Cuts a stream of bytes into lines.
#ifndef VEMKCTL_LINE_SPLITTER_H
#define VEMKCTL_LINE_SPLITTER_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace vemk {

/// Hands each line on as soon as its line feed has come, without it; other bytes stay as they are.
///
/// Threading: none; the handler runs inside add() and finish().
/// Errors: a line that grows over `longest_bytes` throws std::length_error, which names its number;
///   what the handler throws passes through.
class line_splitter {
public:
  line_splitter(std::size_t longest_bytes, std::function<void(std::string_view)> handler);

  void add(std::string_view bytes);

  /// Hands on a last line that has no line feed.
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
