#include "line_input.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>
#include <utility>

namespace vemk {

std::vector<std::string> line_input::read_some() {
  std::vector<std::string> lines;
  char chunk[64 * 1024];
  const ssize_t length = read(input, chunk, sizeof chunk);
  if (length < 0 && (errno == EINTR || errno == EAGAIN))
    return lines;
  if (length <= 0) {
    input = -1;
    if (!line.empty() || too_long)
      end_line(lines);
    return lines;
  }
  std::string_view bytes(chunk, static_cast<size_t>(length));
  while (!bytes.empty()) {
    const size_t end = bytes.find('\n');
    const std::string_view piece = bytes.substr(0, end);
    too_long = too_long || line.size() + piece.size() > longest_line_bytes;
    if (too_long)
      line.clear();
    else
      line.append(piece);
    if (end == std::string_view::npos)
      break;
    end_line(lines);
    bytes.remove_prefix(end + 1);
  }
  return lines;
}

void line_input::end_line(std::vector<std::string> &lines) {
  if (too_long)
    std::fprintf(stderr, "roam-service: a line of more than %zu bytes was dropped; send less\n",
                 longest_line_bytes);
  else
    lines.push_back(std::move(line));
  line = std::string();
  too_long = false;
}

} // namespace vemk
