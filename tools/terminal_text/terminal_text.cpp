#include "terminal_text/terminal_text.h"

#include <algorithm>

namespace vemk {

namespace {

unsigned char byte_at(std::string_view bytes, std::size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

// The number of bytes after the first of a sequence, and the bounds of the second; 0xff: not a
// sequence.
struct utf8_lead_t {
  unsigned following;
  unsigned char lowest_second;
  unsigned char highest_second;
};

constexpr unsigned no_sequence = 0xff;

utf8_lead_t utf8_lead(unsigned char byte) {
  if (byte < 0x80)
    return {0, 0, 0};
  if (byte < 0xc2 || byte > 0xf4)
    return {no_sequence, 0, 0};
  if (byte < 0xe0)
    return {1, 0x80, 0xbf};
  if (byte < 0xf0)
    return {2, static_cast<unsigned char>(byte == 0xe0 ? 0xa0 : 0x80),
            static_cast<unsigned char>(byte == 0xed ? 0x9f : 0xbf)};
  return {3, static_cast<unsigned char>(byte == 0xf0 ? 0x90 : 0x80),
          static_cast<unsigned char>(byte == 0xf4 ? 0x8f : 0xbf)};
}

/// The length of the UTF-8 sequence at the beginning; 0 if there is none.
std::size_t sequence_length(std::string_view bytes) {
  const utf8_lead_t lead = utf8_lead(byte_at(bytes, 0));
  if (lead.following == no_sequence || bytes.size() <= lead.following)
    return 0;
  for (unsigned k = 1; k <= lead.following; ++k) {
    const unsigned char byte = byte_at(bytes, k);
    if (byte < (k == 1 ? lead.lowest_second : 0x80) || byte > (k == 1 ? lead.highest_second : 0xbf))
      return 0;
  }
  return 1 + lead.following;
}

/// Of a UTF-8 sequence, or of a byte that is not part of one.
bool is_control(std::string_view character) {
  const unsigned char first = byte_at(character, 0);
  if (character.size() == 1)
    return is_ascii_control(character[0]) || (first >= 0x80 && first < 0xa0);
  return first == 0xc2 && byte_at(character, 1) < 0xa0;
}

void append_escaped(std::string &line, char c) {
  constexpr char digits[] = "0123456789abcdef";
  switch (c) {
  case '\n':
    line += "\\n";
    return;
  case '\r':
    line += "\\r";
    return;
  case '\t':
    line += "\\t";
    return;
  default:
    break;
  }
  const auto byte = static_cast<unsigned char>(c);
  line += {'\\', 'x', digits[byte >> 4], digits[byte & 0x0f]};
}

} // namespace

bool is_ascii_control(char byte) {
  return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f;
}

std::string on_one_line(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  while (!text.empty()) {
    const std::string_view character =
        text.substr(0, std::max<std::size_t>(sequence_length(text), 1));
    if (is_control(character))
      std::for_each(character.begin(), character.end(),
                    [&line](char c) { append_escaped(line, c); });
    else
      line += character;
    text.remove_prefix(character.size());
  }
  return line;
}

bool is_utf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = sequence_length(bytes);
    if (length == 0)
      return false;
    bytes.remove_prefix(length);
  }
  return true;
}

} // namespace vemk
