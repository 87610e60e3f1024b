#ifndef VEMK_ROAM_SERVICE_ONE_LINE_H
#define VEMK_ROAM_SERVICE_ONE_LINE_H

#include <cstdio>
#include <string_view>

namespace vemk {

/// Writes `message` as one line and flushes it. Control characters come out as \n, \r, \t or \xNN;
/// the backslash and bytes above 0x7f stay as they are. Returns false when the stream took not all.
bool write_one_line(std::FILE *stream, std::string_view message);

} // namespace vemk

#endif
