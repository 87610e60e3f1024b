/// Which messages from the bus are the daemon's own, asked of the JSON library directly, which
/// parses every one of them.
#ifndef VEMK_TESTS_FUZZ_STATUS_RULE_H
#define VEMK_TESTS_FUZZ_STATUS_RULE_H

#include <string>

namespace vemk::fuzz {

enum class message_fate { forwarded, dropped, answered };

message_fate fate_of(const std::string &message);

/// The text of the status message.
const char *status_text(bool connected);

} // namespace vemk::fuzz

#endif
