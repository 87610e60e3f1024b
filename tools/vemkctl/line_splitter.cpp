#include "vemkctl/line_splitter.h"

#include <stdexcept>
#include <utility>

namespace vemk {

line_splitter::line_splitter(std::size_t longest_bytes,
                             std::function<void(std::string_view)> handler)
    : longest(longest_bytes), take_line(std::move(handler)) {}

void line_splitter::add(std::string_view bytes) {
  for (auto end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
    extend(bytes.substr(0, end));
    take_line(line);
    line.clear();
    ++line_number;
    bytes.remove_prefix(end + 1);
  }
  extend(bytes);
}

void line_splitter::finish() {
  if (!line.empty())
    take_line(line);
  line.clear();
}

void line_splitter::extend(std::string_view bytes) {
  if (bytes.size() > longest - line.size())
    throw std::length_error("line " + std::to_string(line_number) + " is longer than " +
                            std::to_string(longest) + " bytes");
  line.append(bytes);
}

} // namespace vemk
