#include "listener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace vemk {
namespace {

constexpr int longest_backlog = 64;

bool is_ipv6(const std::string &address) {
  return address.find(':') != std::string::npos;
}

socklen_t make_address(const std::string &text, int port, sockaddr_storage &result) {
  result = {};
  if (is_ipv6(text)) {
    auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(result);
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET6, text.c_str(), &ipv6.sin6_addr);
    return sizeof ipv6;
  }
  auto &ipv4 = reinterpret_cast<sockaddr_in &>(result);
  ipv4.sin_family = AF_INET;
  ipv4.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, text.c_str(), &ipv4.sin_addr);
  return sizeof ipv4;
}

int port_of(const sockaddr_storage &address) {
  return ntohs(address.ss_family == AF_INET6
                   ? reinterpret_cast<const sockaddr_in6 &>(address).sin6_port
                   : reinterpret_cast<const sockaddr_in &>(address).sin_port);
}

std::string text_of(const sockaddr_storage &address) {
  char text[INET6_ADDRSTRLEN] = "an unknown address";
  if (address.ss_family == AF_INET6)
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr, text,
              sizeof text);
  else if (address.ss_family == AF_INET)
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in &>(address).sin_addr, text, sizeof text);
  return text;
}

std::runtime_error listen_error(const std::string &address, int port, int reason) {
  std::string advice = "give another --bind or --port";
  if (reason == EADDRINUSE)
    advice = "give another --port, or --port 0 for a free one";
  else if (reason == EADDRNOTAVAIL)
    advice = "give an address of this machine with --bind";
  return std::runtime_error("cannot listen on " + host_and_port(address, port) + ": " +
                            std::strerror(reason) + "; " + advice);
}

} // namespace

std::string host_and_port(const std::string &address, int port) {
  const std::string host = is_ipv6(address) ? "[" + address + "]" : address;
  return host + ":" + std::to_string(port);
}

std::string peer_of(int connected_socket) {
  sockaddr_storage other{};
  socklen_t length = sizeof other;
  getpeername(connected_socket, reinterpret_cast<sockaddr *>(&other), &length);
  return text_of(other);
}

listener::listener(std::string bind_address, int port)
    : address(std::move(bind_address)), bound_port(port) {
  open();
}

listener::~listener() {
  close();
}

void listener::open() {
  sockaddr_storage place{};
  socklen_t length = make_address(address, bound_port, place);
  socket = ::socket(place.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  if (socket >= 0)
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (socket < 0 || bind(socket, reinterpret_cast<const sockaddr *>(&place), length) != 0 ||
      listen(socket, longest_backlog) != 0) {
    const int reason = errno;
    close();
    throw listen_error(address, bound_port, reason);
  }
  length = sizeof place;
  getsockname(socket, reinterpret_cast<sockaddr *>(&place), &length);
  bound_port = port_of(place);
}

void listener::close() {
  if (socket >= 0)
    ::close(socket);
  socket = -1;
}

int listener::accept(std::string &peer) const {
  sockaddr_storage other{};
  socklen_t length = sizeof other;
  const int accepted =
      accept4(socket, reinterpret_cast<sockaddr *>(&other), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (accepted < 0)
    return accepted;
  const int on = 1;
  setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  peer = text_of(other);
  return accepted;
}

} // namespace vemk
