#include "server.h"

#include "http.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace vemk {
namespace {

/// How often the clock is looked at.
constexpr int tick_ms = 10;
constexpr int longest_backlog = 64;

/// An address of the operating system, of either family.
struct place_t {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;

  sockaddr *get() { return reinterpret_cast<sockaddr *>(&storage); }
};

place_t make_place(const std::string &address, int port) {
  addrinfo wanted{};
  wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &wanted, &found) != 0)
    throw std::runtime_error("'" + address + "' is no IP address; give another --bind");
  place_t place;
  place.length = found->ai_addrlen;
  std::memcpy(place.get(), found->ai_addr, found->ai_addrlen);
  freeaddrinfo(found);
  return place;
}

/// The address and the port as numbers.
std::pair<std::string, std::string> names_of(place_t place) {
  char address[NI_MAXHOST] = "an unknown address";
  char port[NI_MAXSERV] = "0";
  getnameinfo(place.get(), place.length, address, sizeof address, port, sizeof port,
              NI_NUMERICHOST | NI_NUMERICSERV);
  return {address, port};
}

std::runtime_error listen_error(const std::string &where, int reason) {
  std::string advice = "give another --bind or --port";
  if (reason == EADDRINUSE)
    advice = "give another --port, or --port 0 for a free one";
  else if (reason == EADDRNOTAVAIL)
    advice = "give an address of this machine with --bind";
  return std::runtime_error("cannot listen on " + where + ": " + std::strerror(reason) + "; " +
                            advice);
}

} // namespace

void refuse(connection &visitor, const std::string &what, const std::string &status,
            const std::string &reason) {
  std::fprintf(stderr, "roam-service: refused a %s: %s\n", what.c_str(), reason.c_str());
  visitor.answer(http_answer(status, "text/plain", reason + "\n"));
}

server::server(std::string bind_address, int wanted_port)
    : address(std::move(bind_address)), port(wanted_port) {
  open_door();
}

server::~server() {
  close_door();
}

std::string server::host_and_port() const {
  const bool is_ipv6 = address.find(':') != std::string::npos;
  return (is_ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

void server::open_door() {
  place_t place = make_place(address, port);
  door = socket(place.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  if (door >= 0)
    setsockopt(door, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (door < 0 || bind(door, place.get(), place.length) != 0 ||
      listen(door, longest_backlog) != 0) {
    const int reason = errno;
    close_door();
    throw listen_error(host_and_port(), reason);
  }
  getsockname(door, place.get(), &place.length);
  port = std::stoi(names_of(place).second);
}

void server::close_door() {
  if (door >= 0)
    close(door);
  door = -1;
}

bool server::serve_once(int other_descriptor) {
  const auto now = service_clock::now();
  const size_t known = all.size();
  std::vector<pollfd> wanted;
  wanted.reserve(known + 2);
  // A negative descriptor is passed over.
  wanted.push_back({other_descriptor, POLLIN, 0});
  wanted.push_back({known < most_connections ? door : -1, POLLIN, 0});
  for (const auto &one : all)
    wanted.push_back({one->descriptor(), one->wanted_events(now), 0});
  if (poll(wanted.data(), wanted.size(), tick_ms) < 0)
    return false;
  if (wanted[1].revents != 0)
    accept_one();
  for (size_t index = 0; index < known; ++index)
    serve(*all[index], wanted[index + 2].revents);
  remove_gone();
  return wanted[0].revents != 0;
}

void server::accept_one() {
  place_t other;
  const int accepted = accept4(door, other.get(), &other.length, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (accepted < 0)
    return;
  const int on = 1;
  setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const std::string peer = names_of(other).first;
  const auto count = std::count_if(all.begin(), all.end(),
                                   [&peer](const auto &one) { return one->peer() == peer; });
  if (static_cast<size_t>(count) >= most_of_one_address) {
    std::fprintf(stderr, "roam-service: refused a connection: %s has %zu already\n", peer.c_str(),
                 most_of_one_address);
    close(accepted);
    return;
  }
  all.push_back(std::make_unique<connection>(accepted, ++last_number, peer));
}

void server::serve(connection &one, int happened) {
  one.process_events(happened);
  if (const auto head = one.take_request())
    process_head(one, *head);
  while (const auto message = one.take_message())
    process_message(one, *message);
  for (const auto &message : one.send_due(service_clock::now()))
    if (message->summary.frame_count > 0)
      process_sent(one, *message);
  one.drop_if_overdue(service_clock::now());
}

void server::process_head(connection &visitor, const std::string &head) {
  const auto request = parse_request(head);
  if (head.size() + connection::request_end.size() > connection::longest_request_bytes)
    refuse(visitor, "connection", "431 Request Header Fields Too Large",
           "its request is longer than " + std::to_string(connection::longest_request_bytes) +
               " bytes");
  else if (!request)
    visitor.answer(http_answer("400 Bad Request", "text/plain", "this is no HTTP request\n"));
  else
    process_request(visitor, *request);
}

void server::remove_gone() {
  for (const auto &one : all)
    if (one->gone())
      process_gone(*one);
  all.erase(std::remove_if(all.begin(), all.end(), [](const auto &one) { return one->gone(); }),
            all.end());
}

} // namespace vemk
