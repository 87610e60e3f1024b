/// A message as one line of output.
#ifndef VEMKCTL_MESSAGE_FORMAT_H
#define VEMKCTL_MESSAGE_FORMAT_H

#include <optional>
#include <string>
#include <string_view>

#include "vemkctl/options.h"

namespace vemk {

/// The message in the given format, without a line end.
///
/// text: as on_one_line() returns it. This reads well, but two different messages may look the
///   same.
/// hex: two lower-case digits a byte.
/// json: an object of the sender's module, the length in bytes, and "text" when the message is
///   valid UTF-8 or else "hex".
std::string format_message(std::string_view message, message_format format, int from_module);

/// The state in a status message of the daemon: connected or not; nothing for any other message.
std::optional<bool> connected_status(std::string_view message);

} // namespace vemk

#endif
