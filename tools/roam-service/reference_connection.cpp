#include "reference_connection.h"

#include <algorithm>
#include <utility>

namespace vemk {

std::shared_ptr<outgoing_message_t> make_outgoing_message(std::string_view bytes,
                                                          lws_write_protocol kind) {
  auto message = std::make_shared<outgoing_message_t>();
  message->block.resize(LWS_PRE + bytes.size());
  std::copy(bytes.begin(), bytes.end(), message->block.begin() + LWS_PRE);
  message->length = bytes.size();
  message->kind = kind;
  return message;
}

size_t outgoing_message_t::memory_bytes() const {
  // The block, this with its count of owners, and its place in the queue.
  return block.capacity() + sizeof *this + sizeof(std::shared_ptr<outgoing_message_t>) +
         3 * allocation_bytes;
}

reference_connection::reference_connection(lws *library_connection, std::string peer_address)
    : library(library_connection), address(std::move(peer_address)) {}

bool reference_connection::queue(std::shared_ptr<outgoing_message_t> message) {
  if (given_up)
    return true;
  if (!may_queue(queued_bytes + in_flight_bytes, message->memory_bytes())) {
    given_up = true;
    waiting = {};
    return false;
  }
  queued_bytes += message->memory_bytes();
  waiting.push(std::move(message));
  lws_callback_on_writable(library);
  return true;
}

bool reference_connection::send_next() {
  in_flight_bytes = 0;
  if (given_up)
    return false;
  if (waiting.empty())
    return true;
  const auto message = std::move(waiting.front());
  waiting.pop();
  in_flight_bytes = message->memory_bytes();
  queued_bytes -= in_flight_bytes;
  // The library keeps what the socket does not take, and is writeable again when that is out.
  const int written =
      lws_write(library, message->block.data() + LWS_PRE, message->length, message->kind);
  if (written < 0 || static_cast<size_t>(written) < message->length)
    return false;
  lws_callback_on_writable(library);
  return true;
}

bool reference_connection::accept_piece(std::string_view piece) {
  if (received.size() + piece.size() > longest_message_bytes)
    return false;
  received.append(piece);
  return true;
}

std::optional<std::string> reference_connection::take_completed() {
  if (lws_remaining_packet_payload(library) > 0 || !lws_is_final_fragment(library))
    return std::nullopt;
  return std::exchange(received, std::string());
}

} // namespace vemk
