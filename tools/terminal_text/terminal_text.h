/// Text from other programs on a terminal.
#ifndef VEMK_TERMINAL_TEXT_H
#define VEMK_TERMINAL_TEXT_H

#include <string>
#include <string_view>

namespace vemk {

/// Below 0x20, or 0x7F.
bool is_ascii_control(char byte);

/// The text on one line and without terminal controls: control bytes come out as \n, \r, \t or
/// \xNN. So does each byte of the characters U+0080 to U+009F, in UTF-8 or as single bytes.
/// Backslashes and all other bytes stay as they are.
std::string on_one_line(std::string_view text);

/// Strict: no overlong forms, no surrogates, nothing beyond U+10FFFF.
bool is_utf8(std::string_view bytes);

} // namespace vemk

#endif
