#include "frames.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace vemk {
namespace {

constexpr unsigned int final_bit = 0x80;
constexpr unsigned int reserved_bits = 0x70;
constexpr unsigned int mask_bit = 0x80;
constexpr size_t longest_control_payload = 125;
constexpr unsigned int length_in_16_bits = 126;
constexpr unsigned int length_in_64_bits = 127;
constexpr size_t mask_length = 4;

unsigned int byte_at(const std::string &bytes, size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

bool is_control(opcode_t kind) {
  return (static_cast<unsigned int>(kind) & 0x08U) != 0;
}

void append_big_endian(std::string &bytes, uint64_t value, size_t width) {
  for (size_t index = width; index > 0; --index)
    bytes.push_back(static_cast<char>(value >> (8 * (index - 1)) & 0xffU));
}

void append_frame(std::string &bytes, opcode_t kind, bool final, std::string_view payload) {
  bytes.push_back(static_cast<char>((final ? final_bit : 0) | static_cast<unsigned int>(kind)));
  if (payload.size() < length_in_16_bits) {
    bytes.push_back(static_cast<char>(payload.size()));
  } else if (payload.size() <= 0xffff) {
    bytes.push_back(static_cast<char>(length_in_16_bits));
    append_big_endian(bytes, payload.size(), 2);
  } else {
    bytes.push_back(static_cast<char>(length_in_64_bits));
    append_big_endian(bytes, payload.size(), 8);
  }
  bytes.append(payload);
}

size_t extra_length_bytes(unsigned int length) {
  if (length == length_in_16_bits)
    return 2;
  return length == length_in_64_bits ? 8 : 0;
}

bool is_known(opcode_t kind) {
  switch (kind) {
  case opcode_t::continuation:
  case opcode_t::text:
  case opcode_t::binary:
  case opcode_t::close:
  case opcode_t::ping:
  case opcode_t::pong:
    return true;
  }
  return false;
}

} // namespace

std::string encode_message(opcode_t kind, std::string_view payload, size_t fragments) {
  const size_t count = is_control(kind) ? 1 : std::max<size_t>(fragments, 1);
  const size_t longer_ones = payload.size() % count;
  std::string bytes;
  bytes.reserve(payload.size() + count * 10);
  for (size_t index = 0; index < count; ++index) {
    const size_t length = payload.size() / count + (index < longer_ones ? 1 : 0);
    const size_t offset = index * (payload.size() / count) + std::min(index, longer_ones);
    append_frame(bytes, index == 0 ? kind : opcode_t::continuation, index + 1 == count,
                 payload.substr(offset, length));
  }
  return bytes;
}

std::string close_payload(int code) {
  std::string payload;
  append_big_endian(payload, static_cast<uint64_t>(code), 2);
  return payload;
}

std::optional<message_t> message_reader::next(std::string_view &bytes) {
  while (failed_with == 0) {
    if (!in_payload && !read_head(bytes))
      return std::nullopt;
    read_payload(bytes);
    if (payload_left > 0)
      return std::nullopt;
    if (auto done = end_frame())
      return done;
  }
  return std::nullopt;
}

bool message_reader::read_head(std::string_view &bytes) {
  while (failed_with == 0 && !bytes.empty()) {
    head.push_back(bytes.front());
    bytes.remove_prefix(1);
    if (accept_head()) {
      head.clear();
      return failed_with == 0;
    }
  }
  return false;
}

bool message_reader::accept_head() {
  if (head.size() < 2)
    return false;
  // A head without a mask is shorter, and waiting for the rest of it would be in vain.
  if ((byte_at(head, 1) & mask_bit) == 0) {
    failed_with = close_protocol_error;
    return true;
  }
  const unsigned int short_length = byte_at(head, 1) & 0x7fU;
  const size_t extra = extra_length_bytes(short_length);
  if (head.size() < 2 + extra + mask_length)
    return false;
  final = (byte_at(head, 0) & final_bit) != 0;
  kind = static_cast<opcode_t>(byte_at(head, 0) & 0x0fU);
  payload_left = extra > 0 ? 0 : short_length;
  for (size_t index = 0; index < extra; ++index)
    payload_left = payload_left << 8U | byte_at(head, 2 + index);
  std::memcpy(mask, head.data() + 2 + extra, mask_length);
  mask_index = 0;
  in_payload = true;
  failed_with = check_head(is_control(kind));
  if (failed_with == 0 && !is_control(kind)) {
    if (kind != opcode_t::continuation)
      message.kind = kind;
    message.frame_count = message_begun ? message.frame_count + 1 : 1;
    message_begun = true;
  }
  return true;
}

int message_reader::check_head(bool control) const {
  if ((byte_at(head, 0) & reserved_bits) != 0 || !is_known(kind))
    return close_protocol_error;
  if (control)
    return final && payload_left <= longest_control_payload ? 0 : close_protocol_error;
  if (message_begun != (kind == opcode_t::continuation))
    return close_protocol_error;
  const size_t room = longest_message_bytes - message.payload.size();
  return payload_left <= room ? 0 : close_too_long;
}

void message_reader::read_payload(std::string_view &bytes) {
  const auto taken = static_cast<size_t>(std::min<uint64_t>(payload_left, bytes.size()));
  std::string &target = is_control(kind) ? control_payload : message.payload;
  const size_t begin = target.size();
  target.append(bytes.substr(0, taken));
  bytes.remove_prefix(taken);
  payload_left -= taken;
  std::array<unsigned char, mask_length> turned{};
  for (size_t index = 0; index < mask_length; ++index)
    turned[index] = mask[(mask_index + index) % mask_length];
  for (size_t index = 0; index < taken; ++index)
    target[begin + index] =
        static_cast<char>(static_cast<unsigned char>(target[begin + index]) ^ turned[index & 3U]);
  mask_index = (mask_index + taken) % mask_length;
}

std::optional<message_t> message_reader::end_frame() {
  in_payload = false;
  if (is_control(kind))
    return message_t{kind, std::exchange(control_payload, std::string()), 1};
  if (!final)
    return std::nullopt;
  message_begun = false;
  message_t done = std::move(message);
  message = message_t();
  return done;
}

} // namespace vemk
