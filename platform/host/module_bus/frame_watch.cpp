#include "module_bus/frame_watch.h"

#include <algorithm>

namespace vemk {

namespace {

// The greeting begins with FF, eight bytes, 7F and the protocol's version.
constexpr std::uint64_t greeting_bytes = 64;
constexpr std::uint64_t signature_end = 9;
constexpr std::uint64_t version_at = 10;
constexpr unsigned char least_version = 3;

// The flags that begin a frame. The lowest one, which is not allowed, says that parts follow.
constexpr unsigned char long_size_flag = 2;
constexpr unsigned char command_flag = 4;

bool fits_greeting(std::uint64_t position, unsigned char byte) {
  if (position == 0)
    return byte == 0xFF;
  if (position == signature_end)
    return byte == 0x7F;
  return position != version_at || byte >= least_version;
}

} // namespace

std::size_t frame_watch::pass(std::string_view bytes) {
  const std::size_t allowed = static_cast<std::size_t>(
      std::min<std::uint64_t>(bytes.size(), limits.connection_bytes - passed));
  std::size_t done = 0;
  while (done < allowed) {
    std::size_t step = 1;
    if (now == stage::body) {
      step = static_cast<std::size_t>(std::min<std::uint64_t>(frame_bytes, allowed - done));
      frame_bytes -= step;
      now = frame_bytes == 0 ? stage::flags : stage::body;
    } else if (!take(static_cast<unsigned char>(bytes[done]))) {
      break;
    }
    done += step;
    passed += step;
  }
  return done;
}

// False when the byte may not pass; a second call with it has the same result.
bool frame_watch::take(unsigned char byte) {
  switch (now) {
  case stage::greeting:
    if (!fits_greeting(passed, byte))
      return false;
    now = passed + 1 == greeting_bytes ? stage::flags : stage::greeting;
    return true;
  case stage::flags:
    if ((byte & ~(long_size_flag | command_flag)) != 0)
      return false;
    frame_bytes = 0;
    size_bytes_left = (byte & long_size_flag) != 0 ? 8 : 1;
    now = stage::size;
    return true;
  case stage::size:
    return take_size(byte);
  case stage::body:
    break;
  }
  return true;
}

bool frame_watch::take_size(unsigned char byte) {
  const std::uint64_t size = frame_bytes << 8 | byte;
  if (size_bytes_left == 1 && size > limits.frame_bytes)
    return false;
  frame_bytes = size;
  if (--size_bytes_left == 0)
    now = frame_bytes == 0 ? stage::flags : stage::body;
  return true;
}

} // namespace vemk
