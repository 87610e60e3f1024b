#include "one_line.h"

#include "terminal_text/terminal_text.h"

namespace vemk {

bool write_one_line(std::FILE *stream, std::string_view message) {
  const std::string line = on_one_line(message) + '\n';
  std::fwrite(line.data(), 1, line.size(), stream);
  return std::fflush(stream) == 0 && !std::ferror(stream);
}

} // namespace vemk
