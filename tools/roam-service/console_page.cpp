#include "console_page.h"

#include "console_files.h"

namespace vemk {

const console_file_t *find_console_file(std::string_view target) {
  static const console_file_t files[] = {
      {"/", "text/html; charset=utf-8", console_index_html},
      {"/style.css", "text/css; charset=utf-8", console_style_css},
      {"/script.js", "text/javascript; charset=utf-8", console_script_js},
      {"/icon.svg", "image/svg+xml", console_icon_svg},
  };
  for (const auto &file : files)
    if (file.target == target)
      return &file;
  return nullptr;
}

} // namespace vemk
