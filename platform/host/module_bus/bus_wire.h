/// The protocol between a module and its peers. All numbers are little-endian, of fixed width.
///
/// Each message is one part; a peer that sends several is cut off.
///
/// Inbox, peer to module: one kind byte, then the payload. The module answers each message with one
/// byte once it has taken it, so a sender learns that nothing was lost.
///
/// Outlet, module to listeners: a payload travels as pieces of at most 1 KiB. So a limit on the
/// pieces that wait for a listener that does not read also limits the bytes.
#ifndef VEMK_MODULE_BUS_BUS_WIRE_H
#define VEMK_MODULE_BUS_BUS_WIRE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vemk {

constexpr std::size_t max_payload_bytes = 64 * 1024 * 1024;
constexpr std::size_t max_piece_bytes = 1024;
constexpr std::size_t frame_header_bytes = 21;

/// Messages that a sender may have under way without the module's answer.
constexpr int max_unanswered = 10000;

/// First byte of an inbox message. `leave` makes the module drop off the bus.
enum class inbox_kind : unsigned char { data = 'D', leave = 'L' };

constexpr char taken_answer = 'A';

/// A piece carries part of a message. A hello is empty and follows each new subscription. Its
/// `number` is that of the next message, the first that the new listener is sure to receive.
enum class frame_kind : unsigned char { piece = 'P', hello = 'H' };

/// Head of each outlet frame. `session` distinguishes one stay of the module on the bus from the
/// next.
struct frame_header_t {
  frame_kind kind;
  std::uint32_t session;
  std::uint64_t number;
  std::uint32_t total_bytes;
  std::uint32_t offset_bytes;
};

/// Writes frame_header_bytes bytes.
void write_frame_header(const frame_header_t &header, void *destination);

/// Returns nothing when the frame is malformed: cut short, of unknown kind, or out of bounds.
std::optional<frame_header_t> read_frame_header(std::string_view frame);

/// Puts the pieces of one module's messages together again.
///
/// A message with a missing piece is dropped and counted. Reading then goes on with the next
/// complete one. Messages from before the first frame seen, or between two sessions, do not count.
/// Threading: none; not thread-safe. Errors: malformed frames are ignored.
class message_reassembler {
public:
  /// Takes one frame; returns the message that it completes, if it does.
  std::optional<std::string> add(std::string_view frame);

  /// True once any valid frame came: the listener is subscribed.
  bool subscribed() const { return in_session; }

  /// Messages known to be lost so far.
  std::uint64_t lost() const { return lost_messages; }

private:
  void enter_session(const frame_header_t &header);
  void skip_to(std::uint64_t number);
  std::optional<std::string> add_piece(const frame_header_t &header, std::string_view piece);

  bool in_session = false;
  std::uint32_t session = 0;
  std::uint64_t next_number = 0;
  std::string partial;
  std::uint64_t lost_messages = 0;
};

} // namespace vemk

#endif
