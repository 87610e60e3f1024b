#include "module_bus/bus_wire.h"

#include <utility>

namespace vemk {

namespace {

template<typename number_t>
unsigned char *put(unsigned char *to, number_t value) {
  for (std::size_t i = 0; i < sizeof value; ++i)
    *to++ = static_cast<unsigned char>(value >> (8 * i));
  return to;
}

template<typename number_t>
const char *get(const char *from, number_t &value) {
  value = 0;
  for (std::size_t i = 0; i < sizeof value; ++i)
    value |= static_cast<number_t>(static_cast<unsigned char>(*from++)) << (8 * i);
  return from;
}

bool piece_fits(const frame_header_t &header, std::size_t piece_bytes) {
  return piece_bytes > 0 && piece_bytes <= max_piece_bytes &&
         header.total_bytes <= max_payload_bytes && header.offset_bytes <= header.total_bytes &&
         piece_bytes <= header.total_bytes - header.offset_bytes;
}

} // namespace

void write_frame_header(const frame_header_t &header, void *destination) {
  auto *to = static_cast<unsigned char *>(destination);
  *to++ = static_cast<unsigned char>(header.kind);
  to = put(to, header.session);
  to = put(to, header.number);
  to = put(to, header.total_bytes);
  put(to, header.offset_bytes);
}

std::optional<frame_header_t> read_frame_header(std::string_view frame) {
  if (frame.size() < frame_header_bytes)
    return std::nullopt;
  frame_header_t header{};
  header.kind = static_cast<frame_kind>(frame.front());
  const char *from = get(frame.data() + 1, header.session);
  from = get(from, header.number);
  from = get(from, header.total_bytes);
  get(from, header.offset_bytes);

  const std::size_t piece_bytes = frame.size() - frame_header_bytes;
  const bool valid = (header.kind == frame_kind::hello && piece_bytes == 0) ||
                     (header.kind == frame_kind::piece && piece_fits(header, piece_bytes));
  return valid ? std::optional<frame_header_t>(header) : std::nullopt;
}

std::optional<std::string> message_reassembler::add(std::string_view frame) {
  const auto header = read_frame_header(frame);
  if (!header)
    return std::nullopt;
  if (!in_session || header->session != session)
    enter_session(*header);
  if (header->number > next_number)
    skip_to(header->number);
  if (header->kind == frame_kind::hello || header->number < next_number)
    return std::nullopt;
  return add_piece(*header, frame.substr(frame_header_bytes));
}

// A listener that arrives in the middle of a message was not yet listening when it began.
void message_reassembler::enter_session(const frame_header_t &header) {
  if (!partial.empty())
    ++lost_messages;
  partial.clear();
  in_session = true;
  session = header.session;
  next_number = header.number;
  if (header.kind == frame_kind::piece && header.offset_bytes != 0)
    ++next_number;
}

void message_reassembler::skip_to(std::uint64_t number) {
  lost_messages += number - next_number;
  next_number = number;
  partial.clear();
}

std::optional<std::string> message_reassembler::add_piece(const frame_header_t &header,
                                                          std::string_view piece) {
  if (header.offset_bytes != partial.size()) {
    skip_to(header.number + 1);
    return std::nullopt;
  }
  if (header.offset_bytes == 0)
    partial.reserve(header.total_bytes);
  partial.append(piece);
  if (partial.size() < header.total_bytes)
    return std::nullopt;
  ++next_number;
  return std::exchange(partial, std::string());
}

} // namespace vemk
