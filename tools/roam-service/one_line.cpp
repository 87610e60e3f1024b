#include "one_line.h"

namespace vemk {
namespace {

bool is_control(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7f;
}

void write_escaped(std::FILE *stream, char byte) {
  switch (byte) {
  case '\n':
    std::fputs("\\n", stream);
    break;
  case '\r':
    std::fputs("\\r", stream);
    break;
  case '\t':
    std::fputs("\\t", stream);
    break;
  default:
    std::fprintf(stream, "\\x%02x", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
  }
}

} // namespace

bool write_one_line(std::FILE *stream, std::string_view message) {
  for (const char byte : message) {
    if (is_control(byte))
      write_escaped(stream, byte);
    else
      putc_unlocked(byte, stream);
  }
  putc_unlocked('\n', stream);
  return std::fflush(stream) == 0 && !std::ferror(stream);
}

} // namespace vemk
