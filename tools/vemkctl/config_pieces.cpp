#include "vemkctl/config_pieces.h"

#include <algorithm>

#include "vemkctl/message_format.h"

namespace vemk {

std::vector<config_piece_t> cut_into_pieces(std::string_view bytes) {
  std::vector<config_piece_t> pieces;
  unsigned long line = 1;
  bool continues = false;
  while (!bytes.empty()) {
    const std::size_t line_feed = bytes.substr(0, longest_piece_bytes).find('\n');
    const bool ends_line = line_feed != std::string_view::npos;
    const std::size_t length =
        ends_line ? line_feed + 1 : std::min(bytes.size(), longest_piece_bytes);
    pieces.push_back({line, continues, bytes.substr(0, length)});
    bytes.remove_prefix(length);
    continues = !ends_line;
    line += ends_line ? 1 : 0;
  }
  return pieces;
}

std::string_view without_line_end(std::string_view text) {
  for (const char end : {'\n', '\r'}) {
    if (!text.empty() && text.back() == end)
      text.remove_suffix(1);
  }
  return text;
}

bool is_blank(char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

std::string_view without_blanks_around(std::string_view text) {
  while (!text.empty() && is_blank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back()))
    text.remove_suffix(1);
  return text;
}

std::string quoted(std::string_view text) {
  constexpr std::size_t longest = 60;
  const bool is_long = text.size() > longest;
  return "'" + format_message(text.substr(0, longest), message_format::text, 0) +
         (is_long ? "...'" : "'");
}

} // namespace vemk
