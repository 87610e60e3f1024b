#ifndef VEMK_ROAM_SERVICE_SERVER_H
#define VEMK_ROAM_SERVICE_SERVER_H

#include "admission.h"
#include "connection.h"
#include "http.h"
#include "listener.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vemk {

/// What a server tells its owner. A connection may be answered, written to, closed and reset from
/// within each of them.
struct server_events_t {
  /// A connection's first request; it has to be answered, or accepted as a WebSocket.
  std::function<void(connection &, const http_request_t &)> request;
  /// A message of a WebSocket, control messages included. A close has been answered by then.
  std::function<void(connection &, message_t)> message;
  /// A message that went out completely.
  std::function<void(connection &, const outgoing_t &)> sent;
  /// The connection is about to be destroyed. It may have been of any kind.
  std::function<void(connection &)> gone;
};

/// Waits for the sockets of all connections at once.
///
/// Threading: everything, events included, on the thread that calls serve_once(), wake() aside.
/// Errors: the constructor throws std::runtime_error when the address cannot be listened on, and
///   std::system_error when the wake-up descriptor cannot be had.
class server {
public:
  /// While there are so many, no more are accepted. One address can have a part of them only.
  static constexpr size_t most_connections = 200;

  server(const std::string &bind_address, int port, server_events_t owner_events);
  ~server();
  server(const server &) = delete;
  server &operator=(const server &) = delete;

  int port() const { return door.port(); }
  listener &door_of() { return door; }
  const std::vector<std::unique_ptr<connection>> &connections() const { return all; }

  /// Waits for something to happen, at most for `longest_wait`, and deals with it. Returns true
  /// when wake() was called.
  bool serve_once(std::chrono::milliseconds longest_wait);

  /// Ends the wait of serve_once(). May be called from any thread.
  void wake() const;

private:
  int wait_ms(std::chrono::milliseconds longest_wait) const;
  void accept_one();
  void serve(connection &one, short happened);
  void take_input(connection &one);
  void send_output(connection &one);
  void remove_gone();

  const server_events_t events;
  listener door;
  const int wake_event;
  std::vector<std::unique_ptr<connection>> all;
  address_limit addresses;
  unsigned int last_number = 0;
};

} // namespace vemk

#endif
