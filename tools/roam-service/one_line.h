#ifndef VEMK_ROAM_SERVICE_ONE_LINE_H
#define VEMK_ROAM_SERVICE_ONE_LINE_H

#include <cstdio>
#include <string_view>

namespace vemk {

/// Writes `message` as on_one_line() has it, and flushes it. Returns false when the stream took not
/// all.
bool write_one_line(std::FILE *stream, std::string_view message);

} // namespace vemk

#endif
