/// Checks the bytes that a peer sends to a socket of the messaging library.
#ifndef VEMK_MODULE_BUS_FRAME_WATCH_H
#define VEMK_MODULE_BUS_FRAME_WATCH_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vemk {

/// The limits of one peer.
struct frame_limits_t {
  std::uint64_t frame_bytes;
  /// In the whole of its connection.
  std::uint64_t connection_bytes;
};

/// One connection's bytes, cut into the frames of the messaging library's protocol, ZMTP 3.
///
/// A message of the bus has one part, and each kind has its largest size. The library would keep
/// all parts of a message until the last one has come, without a limit on their number.
/// Threading: none; not thread-safe.
class frame_watch {
public:
  explicit frame_watch(frame_limits_t frame_limits) : limits(frame_limits) {}

  /// Takes the next bytes of the connection and returns how many of them may pass on. If these are
  /// not all, the caller must end the connection. The peer then did not send ZMTP 3's greeting, or
  /// sent a message of several parts, an unknown flag, or more than the limits allow.
  std::size_t pass(std::string_view bytes);

private:
  enum class stage { greeting, flags, size, body };

  bool take(unsigned char byte);
  bool take_size(unsigned char byte);

  const frame_limits_t limits;
  stage now = stage::greeting;
  std::uint64_t passed = 0;
  /// Of the current frame: the size as far as it was read; in the body, the bytes left.
  std::uint64_t frame_bytes = 0;
  unsigned size_bytes_left = 0;
};

} // namespace vemk

#endif
