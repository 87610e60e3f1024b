#ifndef VEMK_ROAM_SERVICE_SERVER_H
#define VEMK_ROAM_SERVICE_SERVER_H

#include "connection.h"
#include "http.h"

#include <memory>
#include <string>
#include <vector>

namespace vemk {

/// Says on standard error that a `what` was refused, and answers it with the status and the reason.
void refuse(connection &visitor, const std::string &what, const std::string &status,
            const std::string &reason);

/// Accepts connections, waits for all of them at once, and hands what they bring to its handlers. A
/// connection may be answered, written to, closed and reset from within each of them.
///
/// Threading: everything, handlers included, on the thread that calls serve_once().
/// Errors: the constructor and open_door() throw std::runtime_error, its text saying what to do,
///   when the address cannot be listened on.
class server {
public:
  /// While there are so many, no more are accepted.
  static constexpr size_t most_connections = 200;
  /// Of one remote address, so that none can take them all. Further ones are closed.
  static constexpr size_t most_of_one_address = 32;

  /// A port of 0 becomes a free one.
  server(std::string bind_address, int wanted_port);
  virtual ~server();
  server(const server &) = delete;
  server &operator=(const server &) = delete;

protected:
  using connections_t = std::vector<std::unique_ptr<connection>>;

  /// A connection's first request; it has to be answered, or accepted as a WebSocket.
  virtual void process_request(connection &visitor, const http_request_t &request) = 0;
  /// A message of a WebSocket, control messages included. A close has been answered by then.
  virtual void process_message(connection &one, const message_t &message) = 0;
  /// A message that went out completely.
  virtual void process_sent(const connection &one, const outgoing_t &message) = 0;
  /// The connection is about to be destroyed. It may have been of any kind.
  virtual void process_gone(const connection &one) = 0;

  /// "ADDRESS:PORT", as a URL has it.
  std::string host_and_port() const;

  /// Listens again, on the same port, or refuses further connections.
  void open_door();
  void close_door();

  const connections_t &connections() const { return all; }

  /// Waits a moment for something to happen, and deals with it. Returns whether `other_descriptor`,
  /// which may be negative, has something to read.
  bool serve_once(int other_descriptor);

private:
  void accept_one();
  void serve(connection &one, int happened);
  void process_head(connection &visitor, const std::string &head);
  void remove_gone();

  const std::string address;
  int port;
  int door = -1; // the socket that is listened on
  connections_t all;
  unsigned int last_number = 0;
};

} // namespace vemk

#endif
