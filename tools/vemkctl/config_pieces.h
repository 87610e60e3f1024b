/// A configuration file as the daemon's parser sees it.
#ifndef VEMKCTL_CONFIG_PIECES_H
#define VEMKCTL_CONFIG_PIECES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vemk {

/// The longest piece that the daemon reads at once, line end included.
constexpr std::size_t longest_piece_bytes = 254;

/// A piece of the file that the daemon reads as one line.
struct config_piece_t {
  /// The line of the file, from 1.
  unsigned long line;
  /// True for a piece that does not begin that line.
  bool continues;
  /// All its bytes, line end included.
  std::string_view bytes;

  /// The part that the daemon reads: up to a NUL byte.
  std::string_view seen() const { return bytes.substr(0, bytes.find('\0')); }
};

/// The pieces point into `bytes`.
std::vector<config_piece_t> cut_into_pieces(std::string_view bytes);

/// Without a LF or CR LF at its end.
std::string_view without_line_end(std::string_view text);

/// White space as C defines it.
bool is_blank(char byte);

std::string_view without_blanks_around(std::string_view text);

/// A text from the file in quotation marks, shortened, control bytes escaped.
std::string quoted(std::string_view text);

} // namespace vemk

#endif
