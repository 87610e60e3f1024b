#ifndef VEMK_ROAM_SERVICE_CONNECTION_H
#define VEMK_ROAM_SERVICE_CONNECTION_H

#include "frames.h"
#include "traffic_log.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vemk {

using service_clock = std::chrono::steady_clock;

/// Bytes on their way out, and what they mean.
struct outgoing_t {
  std::string bytes;
  summary_t summary; // of no frames when the bytes are not a message

  /// What it takes to keep this in a queue.
  size_t memory_bytes() const;
};

/// A message may be shared by all connections that it goes to.
using outgoing_ptr = std::shared_ptr<const outgoing_t>;

/// Encodes a message.
outgoing_ptr make_outgoing(opcode_t kind, std::string_view payload, size_t fragments = 1);

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
  /// Of a request head, with its end.
  static constexpr size_t longest_request_bytes = 16U * 1024;
  static constexpr std::string_view request_end = "\r\n\r\n";
  /// How much memory may wait to be sent. What is counted is not the payload but what keeping a
  /// message takes: a small one takes far more than its payload.
  static constexpr size_t most_queued_bytes = 256U * 1024 * 1024;

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

  /// The events to wait for with poll().
  short wanted_events(service_clock::time_point now) const;
  /// Reads, if there is something to read, and notices that the other end is gone.
  void process_events(int happened);
  /// Sends what is due; returns what went out completely.
  std::deque<outgoing_ptr> send_due(service_clock::time_point now);
  void drop_if_overdue(service_clock::time_point now);
  /// Wastes no more time on it.
  void lose() { stage = stage_t::gone; }

  /// The request head without its end, once that has come or there is more than
  /// `longest_request_bytes`; returned until the request is answered.
  std::optional<std::string> take_request();
  /// The next message. A close frame is answered before it is returned.
  std::optional<message_t> take_message();

  // ---- for the owner ----

  /// Answers the request and ends the connection.
  void answer(std::string http_answer);
  /// Makes it a WebSocket.
  void accept_upgrade(std::string http_answer);
  /// Queues a message that is sent no earlier than after `delay`, in queue order. Returns false
  /// when that would be more than `most_queued_bytes`, which one message alone never is; the
  /// connection is then gone.
  bool send(outgoing_ptr message, std::chrono::milliseconds delay = {});
  /// Sends a close frame behind what is queued and waits a moment for the other end's.
  void close_with(int code);
  /// Ends the connection with a TCP reset.
  void reset();
  void let_read(bool allowed) { may_read = allowed; }

private:
  enum class stage_t { request, open, closing, finishing, gone };
  struct queued_t {
    outgoing_ptr what;
    service_clock::time_point due;
  };

  bool wants_to_read() const;
  bool wants_to_write(service_clock::time_point now) const;
  void read_some();
  void queue(outgoing_ptr what, std::chrono::milliseconds delay = {});
  void finish();
  void stop_sending_when_done();

  const int socket;
  const unsigned int own_number;
  const std::string address;
  stage_t stage = stage_t::request;
  bool may_read = true;
  bool end_announced = false;
  service_clock::time_point deadline; // of every stage but open
  std::string input;
  size_t input_taken = 0; // at its front
  message_reader reader;
  std::deque<queued_t> output;
  size_t sent_of_first = 0;
  size_t queued_bytes = 0; // of memory
};

} // namespace vemk

#endif
