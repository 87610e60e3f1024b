#include "module_bus/bus_gate.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <list>
#include <new>
#include <optional>
#include <string_view>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "module_bus/bus_folder.h"
#include "module_bus/descriptor.h"

namespace vemk {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds last_words_time{100};
constexpr milliseconds pause_without_descriptors{100};
constexpr int waiting_peers = 100;
constexpr std::size_t step_bytes = 64 * 1024;

sockaddr_un address_of(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

descriptor new_socket() {
  return descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

descriptor open_door(const std::string &path) {
  descriptor door = new_socket();
  const sockaddr_un address = address_of(path);
  unlink(path.c_str());
  if (bind(door.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      listen(door.get(), waiting_peers) != 0)
    throw bus_error("cannot bind the bus socket " + path + ": " + std::strerror(errno) +
                    "; check that its folder is there and can be written to");
  return door;
}

/// One direction of a connection. It does not read on while bytes wait for the other side.
class direction {
public:
  direction(const descriptor &from, const descriptor &to) : source(from.get()), sink(to.get()) {}

  bool wants_input() const { return waiting.empty() && !source_ended && !sink_broken; }
  bool wants_output() const { return !waiting.empty(); }

  /// The bytes cannot be passed on.
  bool is_broken() const { return sink_broken; }

  /// The end of the bytes was read, and all of them were passed on.
  bool is_done() const { return source_ended && waiting.empty(); }

  /// Reads once and writes the bytes that the watch lets pass, or all of them without a watch.
  void pass(std::vector<char> &buffer, frame_watch *watch) {
    const ssize_t got = recv(source, buffer.data(), buffer.size(), 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
      return;
    if (got <= 0) {
      source_ended = true;
      return;
    }
    std::string_view bytes(buffer.data(), static_cast<std::size_t>(got));
    const std::size_t allowed = watch != nullptr ? watch->pass(bytes) : bytes.size();
    source_ended = allowed < bytes.size();
    bytes = bytes.substr(0, allowed);
    bytes.remove_prefix(write(bytes));
    waiting.assign(bytes);
  }

  void write_waiting() { waiting.erase(0, write(waiting)); }

private:
  /// Returns the number of bytes that are done.
  std::size_t write(std::string_view bytes) {
    const ssize_t written = send(sink, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written >= 0)
      return static_cast<std::size_t>(written);
    if (errno == EAGAIN || errno == EINTR)
      return 0;
    // The other direction reads the end after all earlier bytes.
    sink_broken = true;
    return bytes.size();
  }

  const int source;
  const int sink;
  std::string waiting;
  bool source_ended = false;
  bool sink_broken = false;
};

/// A descriptor with its awaited events, and those that came.
struct watched_t {
  explicit watched_t(descriptor watched) : end(std::move(watched)) {}

  const descriptor end;
  std::uint32_t asked = 0;
  std::uint32_t seen = 0;
};

struct connection_t {
  connection_t(descriptor peer_end, descriptor inner_end, frame_limits_t limits)
      : peer(std::move(peer_end)), inner(std::move(inner_end)), watch(limits),
        up(peer.end, inner.end), down(inner.end, peer.end) {}

  bool is_over() const {
    return up.is_done() || down.is_done() || (up.is_broken() && down.is_broken());
  }

  watched_t peer;
  watched_t inner;
  frame_watch watch;
  direction up;
  direction down;
};

struct open_door_t {
  open_door_t(descriptor opened, gate_door_t named)
      : listener(std::move(opened)), door(std::move(named)) {}

  watched_t listener;
  const gate_door_t door;
};

} // namespace

class bus_gate::loop {
public:
  explicit loop(const std::vector<gate_door_t> &wanted_doors)
      : buffer(step_bytes), poll(epoll_create1(EPOLL_CLOEXEC)),
        wake(descriptor(eventfd(0, EFD_CLOEXEC))) {
    if (!poll.is_open() || !wake.end.is_open() || !watch(wake, EPOLLIN))
      throw bus_error(std::string("cannot watch the bus sockets: ") + std::strerror(errno) +
                      "; raise the process's limit of descriptors");
    for (const gate_door_t &door : wanted_doors)
      doors.emplace_back(open_door(door.path), door);
  }

  void stop() const { eventfd_write(wake.end.get(), 1); }

  void run() {
    // Like the messaging library's own threads, which are in the same service.
    prctl(PR_SET_NAME, "ZMQbg/Gate");
    while (!is_over()) {
      wait_for_events();
      serve_connections();
      for (open_door_t &door : doors) {
        if (std::exchange(door.listener.seen, 0) != 0)
          accept_peer(door);
      }
      if (std::exchange(wake.seen, 0) != 0)
        close_doors();
    }
  }

private:
  bool is_over() const {
    return deadline && (connections.empty() || steady_clock::now() >= *deadline);
  }

  // Not poll(), which fails in a process that has more descriptors than a lowered limit allows.
  // False when there is no memory.
  bool watch(watched_t &one, std::uint32_t events) const {
    if (events == one.asked)
      return true;
    epoll_event entry{};
    entry.events = events;
    entry.data.ptr = &one;
    // A descriptor without an awaited event is left out: after a hang-up it would wake the thread
    // for ever.
    const int what = one.asked == 0 ? EPOLL_CTL_ADD : events == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
    if (epoll_ctl(poll.get(), what, one.end.get(), &entry) != 0)
      return false;
    one.asked = events;
    return true;
  }

  bool watch_both_ends(connection_t &one) const {
    const auto wanted = [](const direction &from, const direction &to) -> std::uint32_t {
      return (from.wants_input() ? EPOLLIN : 0U) | (to.wants_output() ? EPOLLOUT : 0U);
    };
    return watch(one.peer, wanted(one.up, one.down)) && watch(one.inner, wanted(one.down, one.up));
  }

  void wait_for_events() {
    const bool accepts = steady_clock::now() >= accept_again;
    for (open_door_t &door : doors)
      watch(door.listener, accepts ? EPOLLIN : 0U);
    epoll_event events[16];
    const int count = epoll_wait(poll.get(), events, std::size(events), wait_ms(accepts));
    for (int i = 0; i < count; ++i)
      static_cast<watched_t *>(events[i].data.ptr)->seen = events[i].events;
  }

  int wait_ms(bool accepts) const {
    if (accepts && !deadline)
      return -1;
    const auto until = deadline ? *deadline : accept_again;
    const auto left = std::chrono::duration_cast<milliseconds>(until - steady_clock::now());
    return static_cast<int>(std::max(left, milliseconds(0)).count()) + 1;
  }

  void serve_connections() {
    for (auto one = connections.begin(); one != connections.end();) {
      const bool is_due = (one->peer.seen | one->inner.seen) != 0;
      const bool goes_on = !is_due || (serve(*one) && watch_both_ends(*one));
      one = goes_on ? std::next(one) : connections.erase(one);
    }
  }

  bool serve(connection_t &one) {
    const std::uint32_t at_peer = std::exchange(one.peer.seen, 0);
    const std::uint32_t at_inner = std::exchange(one.inner.seen, 0);
    try {
      if (one.down.wants_output() && (at_peer & ~std::uint32_t{EPOLLIN}) != 0)
        one.down.write_waiting();
      if (one.up.wants_output() && (at_inner & ~std::uint32_t{EPOLLIN}) != 0)
        one.up.write_waiting();
      if (one.up.wants_input() && (at_peer & ~std::uint32_t{EPOLLOUT}) != 0)
        one.up.pass(buffer, &one.watch);
      if (one.down.wants_input() && (at_inner & ~std::uint32_t{EPOLLOUT}) != 0)
        one.down.pass(buffer, nullptr);
    } catch (const std::bad_alloc &) {
      return false;
    }
    return !one.is_over();
  }

  void accept_peer(const open_door_t &door) {
    descriptor peer(
        accept4(door.listener.end.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!peer.is_open()) {
      const bool gone = errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
      accept_again = steady_clock::now() + (gone ? milliseconds(0) : pause_without_descriptors);
      return;
    }
    descriptor inner = new_socket();
    const sockaddr_un address = address_of(door.door.inner_path);
    if (!inner.is_open() ||
        connect(inner.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
      return;
    try {
      connections.emplace_back(std::move(peer), std::move(inner), door.door.limits);
    } catch (const std::bad_alloc &) {
      return;
    }
    if (!watch_both_ends(connections.back()))
      connections.pop_back();
  }

  void close_doors() {
    doors.clear();
    deadline = steady_clock::now() + last_words_time;
  }

  std::vector<char> buffer;
  const descriptor poll;
  watched_t wake;
  std::list<open_door_t> doors;
  std::list<connection_t> connections;
  steady_clock::time_point accept_again;
  /// Set while the gate closes.
  std::optional<steady_clock::time_point> deadline;
};

bus_gate::bus_gate(const std::vector<gate_door_t> &doors) : passing(new loop(doors)) {
  // Signals are for the program's own threads.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread = std::thread([this] { passing->run(); });
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bus_gate::~bus_gate() {
  passing->stop();
  thread.join();
}

} // namespace vemk
