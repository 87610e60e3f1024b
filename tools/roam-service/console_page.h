#ifndef VEMK_ROAM_SERVICE_CONSOLE_PAGE_H
#define VEMK_ROAM_SERVICE_CONSOLE_PAGE_H

#include <string>
#include <string_view>

namespace vemk {

/// One of the files that the console's page is made of. They are part of the program.
struct console_file_t {
  std::string target; // of the request
  std::string content_type;
  std::string_view bytes;
};

/// Returns null when no file has this request target.
const console_file_t *find_console_file(std::string_view target);

} // namespace vemk

#endif
