#ifndef VEMK_ROAM_SERVICE_CONNECTION_H
#define VEMK_ROAM_SERVICE_CONNECTION_H

#include "frames.h"
#include "send_limit.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vemk {

using service_clock = std::chrono::steady_clock;

/// Bytes on their way out, and what they mean. Shared by all connections that they go to.
struct outgoing_t {
  std::string bytes;
  opcode_t kind = opcode_t::text;
  size_t payload_bytes = 0;
  size_t frame_count = 1;
  std::string beginning; // of the payload

  /// What it takes to keep this in a queue.
  size_t memory_bytes() const;
};

/// Encodes a message; the record of its beginning has at most `recorded_bytes`.
std::shared_ptr<const outgoing_t> make_outgoing(opcode_t kind, std::string_view payload,
                                                size_t fragments = 1);

/// How much of a payload is kept for people to see.
constexpr size_t recorded_bytes = 1024;

/// One TCP connection: a request first, a WebSocket after accept_upgrade().
///
/// It speaks the WebSocket protocol itself rather than through a library, because a library answers
/// pings and reads on its own account, and both have to be stoppable here.
///
/// Threading: everything on the thread that serves it.
/// Ownership: owns the descriptor.
/// Errors: a connection that has failed or ended is gone(), and of no more use.
class connection {
public:
  static constexpr size_t longest_request_bytes = 16U * 1024;

  connection(int socket_descriptor, unsigned int number, std::string peer_address);
  ~connection();
  connection(const connection &) = delete;
  connection &operator=(const connection &) = delete;

  unsigned int id() const { return own_number; }
  const std::string &peer() const { return address; }
  int descriptor() const { return socket; }
  bool has_output() const { return !output.empty(); }
  bool gone() const { return stage == stage_t::gone; }
  /// A WebSocket that is neither closed nor being closed.
  bool open() const { return stage == stage_t::open; }
  /// The code that it was closed with because of what the other end sent; 0 if that was in order.
  int failure() const { return reader.failure(); }

  // ---- for the server that waits ----

  bool wants_to_read() const;
  bool wants_to_write(service_clock::time_point now) const;
  /// When something is due that no event of the socket announces.
  std::optional<service_clock::time_point> next_due() const;
  void read_some();
  /// Sends what is due; returns what went out completely.
  std::deque<std::shared_ptr<const outgoing_t>> send_due(service_clock::time_point now);
  void drop_if_overdue(service_clock::time_point now);
  /// To be called when the socket says that the other end is gone, or to waste no time on it.
  void lose() { stage = stage_t::gone; }

  /// Whether the request head has, or will have, more than `longest_request_bytes`.
  bool request_too_long() const;
  /// The request head once it is complete, without its empty line; returned once.
  std::optional<std::string> take_request();
  /// The next message. A close frame is answered before it is returned.
  std::optional<message_t> take_message();

  // ---- for the owner ----

  /// Answers the request and ends the connection.
  void answer(std::string http_answer);
  /// Makes it a WebSocket.
  void accept_upgrade(std::string http_answer);
  /// Queues a message that is sent no earlier than after `delay`, in queue order. Returns false
  /// when that would be more than `most_queued_bytes`; the connection is then gone.
  bool send(std::shared_ptr<const outgoing_t> message, std::chrono::milliseconds delay);
  /// Sends a close frame behind what is queued and waits a moment for the other end's.
  void close_with(int code, std::chrono::milliseconds delay = {});
  /// Ends the connection with a TCP reset.
  void reset();
  void let_read(bool allowed) { may_read = allowed; }

private:
  enum class stage_t { request, open, closing, finishing, gone };
  struct queued_t {
    std::shared_ptr<const outgoing_t> what;
    service_clock::time_point due;
  };

  void queue(std::shared_ptr<const outgoing_t> what, std::chrono::milliseconds delay);
  void finish();
  void stop_sending_when_done();

  const int socket;
  const unsigned int own_number;
  const std::string address;
  stage_t stage = stage_t::request;
  bool may_read = true;
  bool end_announced = false;
  service_clock::time_point deadline;
  std::string input;
  message_reader reader;
  std::deque<queued_t> output;
  size_t sent_of_first = 0;
  size_t queued_bytes = 0; // of memory
};

} // namespace vemk

#endif
