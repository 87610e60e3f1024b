#include "frames.h"

#include <array>
#include <cstdint>
#include <utility>

namespace vemk {
namespace {

constexpr unsigned int final_bit = 0x80;
constexpr unsigned int reserved_bits = 0x70;
constexpr unsigned int opcode_bits = 0x0f;
constexpr unsigned int mask_bit = 0x80;
constexpr unsigned int length_bits = 0x7f;
constexpr size_t mask_bytes = 4;
// Lengths from here on stand behind the first two bytes.
constexpr unsigned int length_in_16_bits = 126;
constexpr unsigned int length_in_64_bits = 127;

unsigned int byte_at(std::string_view bytes, size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

bool is_control(opcode_t kind) {
  return kind == opcode_t::close || kind == opcode_t::ping || kind == opcode_t::pong;
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

void append_unmasked(std::string &target, std::string_view mask, std::string_view masked) {
  const size_t begin = target.size();
  target.append(masked);
  // With pointers and a mask of its own, the compiler takes many bytes at a time.
  const std::array<char, mask_bytes> key{mask[0], mask[1], mask[2], mask[3]};
  char *bytes = target.data() + begin;
  for (size_t index = 0; index < masked.size(); ++index)
    bytes[index] = static_cast<char>(bytes[index] ^ key[index % mask_bytes]);
}

} // namespace

std::string encode_message(opcode_t kind, std::string_view payload, size_t fragments) {
  const size_t count = is_data(kind) ? fragments : 1;
  const size_t shorter = payload.size() / count;
  const size_t longer_ones = payload.size() % count;
  std::string bytes;
  bytes.reserve(payload.size() + count * 10);
  for (size_t index = 0; index < count; ++index) {
    const size_t length = shorter + (index < longer_ones ? 1 : 0);
    append_frame(bytes, index == 0 ? kind : opcode_t::continuation, index + 1 == count,
                 payload.substr(0, length));
    payload.remove_prefix(length);
  }
  return bytes;
}

std::string close_payload(int code) {
  std::string payload;
  append_big_endian(payload, static_cast<uint64_t>(code), 2);
  return payload;
}

std::optional<message_t> message_reader::next(std::string_view &bytes) {
  while (failed_with == 0 && bytes.size() >= 2) {
    if (!may_begin(byte_at(bytes, 0), byte_at(bytes, 1)))
      return fail(close_protocol_error);
    const bool final = (byte_at(bytes, 0) & final_bit) != 0;
    const auto kind = static_cast<opcode_t>(byte_at(bytes, 0) & opcode_bits);
    const unsigned int short_length = byte_at(bytes, 1) & length_bits;
    const size_t extra = extra_length_bytes(short_length);
    const size_t head_bytes = 2 + extra + mask_bytes;
    if (bytes.size() < head_bytes)
      break;
    uint64_t length = extra > 0 ? 0 : short_length;
    for (size_t index = 0; index < extra; ++index)
      length = length << 8U | byte_at(bytes, 2 + index);
    if (!is_control(kind) && length > longest_message_bytes - message.payload.size())
      return fail(close_too_long);
    if (bytes.size() - head_bytes < length)
      break;
    const auto mask = bytes.substr(2 + extra, mask_bytes);
    const auto masked = bytes.substr(head_bytes, static_cast<size_t>(length));
    bytes.remove_prefix(head_bytes + masked.size());
    if (is_control(kind)) {
      message_t control{kind, {}, 1};
      append_unmasked(control.payload, mask, masked);
      return control;
    }
    if (kind != opcode_t::continuation)
      message.kind = kind;
    ++message.frame_count;
    append_unmasked(message.payload, mask, masked);
    if (final)
      return std::exchange(message, message_t());
  }
  return std::nullopt;
}

/// Whether a frame's first two bytes are in order, at this place among the others.
bool message_reader::may_begin(unsigned int first, unsigned int second) const {
  const auto kind = static_cast<opcode_t>(first & opcode_bits);
  if ((first & reserved_bits) != 0 || (second & mask_bit) == 0)
    return false;
  if (is_control(kind))
    return (first & final_bit) != 0 && (second & length_bits) < length_in_16_bits;
  return message.frame_count > 0 ? kind == opcode_t::continuation : is_data(kind);
}

std::optional<message_t> message_reader::fail(int code) {
  failed_with = code;
  return std::nullopt;
}

} // namespace vemk
