#ifndef VEMK_ROAM_SERVICE_FRAMES_H
#define VEMK_ROAM_SERVICE_FRAMES_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vemk {

enum class opcode_t : unsigned char {
  continuation = 0,
  text = 1,
  binary = 2,
  close = 8,
  ping = 9,
  pong = 10,
};

constexpr bool is_data(opcode_t kind) {
  return kind == opcode_t::text || kind == opcode_t::binary;
}

/// What one end tells the other: a text or binary message, its fragments joined, or a control
/// frame.
struct message_t {
  opcode_t kind = opcode_t::text;
  std::string payload;
  size_t frame_count = 0;
};

constexpr int close_going_away = 1001;
constexpr int close_protocol_error = 1002;
constexpr int close_too_long = 1009;

/// Returns the message as a server sends it: in `fragments` frames of about the same size, control
/// messages always in one.
std::string encode_message(opcode_t kind, std::string_view payload, size_t fragments);

/// The payload of a close frame with this code and no text.
std::string close_payload(int code);

/// Puts the messages of a client together.
///
/// Threading: none of its own. Errors: after one, failure() says with which code to close the
///   connection, and next() returns nothing any more.
class message_reader {
public:
  static constexpr size_t longest_message_bytes = 256U * 1024 * 1024;

  /// Takes whole frames off the front of `bytes` up to the end of the next message and returns
  /// that. Returns nothing when its end has not arrived; what is left has to come again with more.
  std::optional<message_t> next(std::string_view &bytes);

  int failure() const { return failed_with; }

private:
  bool may_begin(unsigned int first, unsigned int second) const;
  std::optional<message_t> fail(int code);

  message_t message; // its frames so far
  int failed_with = 0;
};

} // namespace vemk

#endif
