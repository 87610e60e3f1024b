#ifndef VEMK_ROAM_SERVICE_FRAMES_H
#define VEMK_ROAM_SERVICE_FRAMES_H

#include <cstddef>
#include <cstdint>
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

/// What one end tells the other: a text or binary message, its fragments joined, or a control
/// frame.
struct message_t {
  opcode_t kind = opcode_t::text;
  std::string payload;
  size_t frame_count = 1;
};

constexpr int close_going_away = 1001;
constexpr int close_protocol_error = 1002;
constexpr int close_too_long = 1009;

/// Returns the message as a server sends it: in `fragments` frames of about the same size, control
/// messages always in one.
std::string encode_message(opcode_t kind, std::string_view payload, size_t fragments = 1);

/// The payload of a close frame with this code and no text.
std::string close_payload(int code);

/// Puts the messages of a client together.
///
/// Threading: none of its own. Errors: after one, failure() says with which code to close the
///   connection, and next() returns nothing any more.
class message_reader {
public:
  static constexpr size_t longest_message_bytes = 256U * 1024 * 1024;

  /// Takes bytes off the front of `bytes` up to the end of the next message and returns that, or
  /// takes them all and returns nothing.
  std::optional<message_t> next(std::string_view &bytes);

  int failure() const { return failed_with; }

private:
  bool read_head(std::string_view &bytes);
  bool accept_head();
  int check_head(bool control) const;
  void read_payload(std::string_view &bytes);
  std::optional<message_t> end_frame();

  std::string head;
  // of the frame that is being read, once its head is there
  bool in_payload = false;
  bool final = false;
  opcode_t kind = opcode_t::text;
  uint64_t payload_left = 0;
  unsigned char mask[4] = {};
  size_t mask_index = 0;

  std::string control_payload;
  bool message_begun = false;
  message_t message;
  int failed_with = 0;
};

} // namespace vemk

#endif
