#ifndef VEMK_ROAM_SERVICE_LISTENER_H
#define VEMK_ROAM_SERVICE_LISTENER_H

#include <string>

namespace vemk {

/// "ADDRESS:PORT", as a URL has it.
std::string host_and_port(const std::string &address, int port);

/// The address of a connected socket's other end, or "an unknown address".
std::string peer_of(int connected_socket);

/// The socket that connections are accepted from. It can be closed for a while and opened again on
/// the same port.
///
/// Threading: none of its own.
/// Errors: open() throws std::runtime_error, its text saying what to do.
class listener {
public:
  /// A port of 0 becomes a free one.
  listener(std::string bind_address, int port);
  ~listener();
  listener(const listener &) = delete;
  listener &operator=(const listener &) = delete;

  int port() const { return bound_port; }
  /// Negative while closed.
  int descriptor() const { return socket; }

  void open();
  void close();

  /// Accepts a connection and writes the other end's address to `peer`. Returns its descriptor, or
  /// a negative value when there is none to be had.
  int accept(std::string &peer) const;

private:
  const std::string address;
  int bound_port;
  int socket = -1;
};

} // namespace vemk

#endif
