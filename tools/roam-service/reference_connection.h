#ifndef VEMK_ROAM_SERVICE_REFERENCE_CONNECTION_H
#define VEMK_ROAM_SERVICE_REFERENCE_CONNECTION_H

#include "send_limit.h"

#include <cstddef>
#include <libwebsockets.h>
#include <memory>
#include <optional>
#include <queue>
#include <string>
#include <string_view>
#include <vector>

namespace vemk {

/// One message on its way out, with the room before it that the library needs for its header.
/// Shared by all connections that it goes to.
struct outgoing_message_t {
  std::vector<unsigned char> block;
  size_t length;
  lws_write_protocol kind;

  /// What it takes to keep this in a queue.
  size_t memory_bytes() const;
};

std::shared_ptr<outgoing_message_t> make_outgoing_message(std::string_view bytes,
                                                          lws_write_protocol kind);

/// One connected daemon: what waits to be sent to it and what has arrived of its current message.
///
/// Threading: everything on the thread that serves the library's context.
/// Ownership: the library's connection object stays the library's.
/// Errors: reported by the results below; after a false the connection is of no more use.
class reference_connection {
public:
  static constexpr size_t longest_message_bytes = 256U * 1024 * 1024;

  reference_connection(lws *library_connection, std::string peer_address);

  const std::string &peer() const { return address; }

  /// Queues a message. Returns false when that would be more than `most_queued_bytes`: the caller
  /// then closes the connection, which until then quietly takes and sends nothing any more.
  bool queue(std::shared_ptr<outgoing_message_t> message);

  /// Sends the next message; to be called when the library says that the connection is writeable.
  /// Returns false when the connection has failed.
  bool send_next();

  /// Takes a received piece. Returns false when the message exceeds `longest_message_bytes`.
  bool accept_piece(std::string_view piece);

  /// Returns the message if the piece accepted last was its final one.
  std::optional<std::string> take_completed();

private:
  lws *const library;
  const std::string address;
  std::queue<std::shared_ptr<outgoing_message_t>> waiting;
  size_t queued_bytes = 0; // of memory
  // Given to the library, which may still hold a part of it; counts until the next writeable event.
  size_t in_flight_bytes = 0;
  bool given_up = false;
  std::string received;
};

} // namespace vemk

#endif
