#include "module_bus/bus_module.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <random>
#include <string_view>
#include <sys/file.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "module_bus/bus_folder.h"

namespace vemk {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::size_t record_length_offset = 4;
constexpr std::size_t record_payload_offset = 13;

// The messages that wait in the module; further ones wait in the senders.
constexpr int inbox_messages = 256;

// About 200 MiB of pieces for a listener that does not read; 64 MiB need a third of them.
constexpr int outlet_pieces = 200000;

// Without these descriptors the messaging library ends the process during its set-up. The library
// takes ten, the gate four, and another thread of the process may take some at the same time.
constexpr std::size_t needed_descriptors = 20;

// A kind byte comes before the payload.
constexpr frame_limits_t inbox_limits{max_payload_bytes + 1,
                                      std::numeric_limits<std::uint64_t>::max()};

// A listener's greeting, its description and its subscription take some 130 bytes. Each
// subscription costs the library a multiple of its bytes.
constexpr frame_limits_t outlet_limits{1024, 64 * 1024};

constexpr int leave_linger_ms = 100;
constexpr milliseconds settle_time{100};

// The library checks the size of a frame before it allocates memory for it. Only this process may
// connect to the socket; the other ones come through the gate.
void bind(zmq::socket_t &socket, const std::string &path, const frame_limits_t &limits) {
  const pid_t own = getpid();
  try {
    socket.set(zmq::sockopt::maxmsgsize, static_cast<std::int64_t>(limits.frame_bytes));
    if (zmq_setsockopt(socket.handle(), ZMQ_IPC_FILTER_PID, &own, sizeof own) != 0)
      throw zmq::error_t();
    socket.bind("ipc://" + path);
  } catch (const zmq::error_t &error) {
    throw bus_error("cannot bind the bus socket " + path + ": " + error.what() +
                    "; check that its folder is there and can be written to");
  }
}

bool has_free_descriptors(int any_descriptor) {
  std::vector<int> taken;
  while (taken.size() < needed_descriptors) {
    const int copy = fcntl(any_descriptor, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
      break;
    taken.push_back(copy);
  }
  for (const int copy : taken)
    close(copy);
  return taken.size() == needed_descriptors;
}

// Nothing to receive and an interrupted call have the same result: there will be a next call.
bool receive_now(zmq::socket_t &socket, zmq::message_t &message) {
  try {
    return socket.recv(message, zmq::recv_flags::dontwait).has_value();
  } catch (const zmq::error_t &) {
    return false;
  }
}

bool send_now(zmq::socket_t &socket, zmq::message_t &message, zmq::send_flags flags) {
  while (true) {
    try {
      return socket.send(message, flags | zmq::send_flags::dontwait).has_value();
    } catch (const zmq::error_t &error) {
      if (error.num() != EINTR)
        return false;
    }
  }
}

// A call that failed did not look.
bool is_readable(zmq::socket_t &socket) {
  int events = 0;
  std::size_t size = sizeof events;
  return zmq_getsockopt(socket.handle(), ZMQ_EVENTS, &events, &size) != 0 ||
         (events & ZMQ_POLLIN) != 0;
}

void *make_record(const char *payload, std::size_t length) {
  auto *record = static_cast<unsigned char *>(std::malloc(record_payload_offset + length));
  if (!record)
    return nullptr;
  const auto length_field = static_cast<std::uint32_t>(length);
  std::memset(record, 0, record_payload_offset);
  std::memcpy(record + record_length_offset, &length_field, sizeof length_field);
  if (length > 0)
    std::memcpy(record + record_payload_offset, payload, length);
  return record;
}

} // namespace

module_claim::module_claim(const std::string &folder, int module_id)
    : inbox(inbox_path(folder, module_id)), outlet(outlet_path(folder, module_id)),
      inner_inbox(inner_inbox_path(folder, module_id)),
      inner_outlet(inner_outlet_path(folder, module_id)),
      lock(open(lock_path(folder, module_id).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                0600)) {
  if (lock < 0)
    throw bus_error("cannot open the lock " + lock_path(folder, module_id) + ": " +
                    std::strerror(errno) + "; check that its folder can be written to");
  if (flock(lock, LOCK_EX | LOCK_NB) == 0) {
    if (has_free_descriptors(lock))
      return;
    close(lock);
    throw bus_error("it takes " + std::to_string(needed_descriptors) +
                    " descriptors, and fewer are left; raise the process's limit");
  }
  const int error = errno;
  close(lock);
  const std::string module = "module " + std::to_string(module_id);
  if (error == EWOULDBLOCK)
    throw bus_error(module + " is on the bus in " + folder + " already, in another process; " +
                    "stop that one, or name another folder with MODULE_BUS_DIR");
  throw bus_error("cannot lock " + module + " in " + folder + ": " + std::strerror(error) +
                  "; name a folder on a local file system with MODULE_BUS_DIR");
}

module_claim::~module_claim() {
  for (const std::string *path : {&inbox, &outlet, &inner_inbox, &inner_outlet})
    unlink(path->c_str());
  close(lock);
}

bus_module::bus_module(const std::string &folder, int module_id)
    : claim(folder, module_id), inbox(context, zmq::socket_type::router),
      outlet(context, zmq::socket_type::xpub), session(std::random_device{}()) {
  inbox.set(zmq::sockopt::rcvhwm, inbox_messages);
  inbox.set(zmq::sockopt::sndhwm, max_unanswered);
  outlet.set(zmq::sockopt::sndhwm, outlet_pieces);
  outlet.set(zmq::sockopt::xpub_verbose, true);
  for (auto *socket : {&inbox, &outlet})
    socket->set(zmq::sockopt::linger, leave_linger_ms);
  bind(inbox, claim.inner_inbox, inbox_limits);
  bind(outlet, claim.inner_outlet, outlet_limits);
  gate.emplace(std::vector<gate_door_t>{{claim.inbox, claim.inner_inbox, inbox_limits},
                                        {claim.outlet, claim.inner_outlet, outlet_limits}});
  settle();
}

void *bus_module::take_record() {
  greet_new_listeners();
  if (!waiting)
    receive();
  if (!waiting)
    return nullptr;
  void *record = make_record(waiting->data<char>() + 1, waiting->size() - 1);
  if (record)
    waiting.reset();
  return record;
}

bool bus_module::publish(const void *data, std::uint32_t length) {
  if (!data || length == 0 || length > max_payload_bytes)
    return false;
  const auto *payload = static_cast<const char *>(data);
  frame_header_t header{frame_kind::piece, session, next_number, length, 0};
  while (header.offset_bytes < length) {
    const std::size_t piece_bytes =
        std::min<std::size_t>(max_piece_bytes, length - header.offset_bytes);
    if (!send_frame(header, payload + header.offset_bytes, piece_bytes)) {
      next_number += header.offset_bytes > 0 ? 1 : 0;
      return false;
    }
    header.offset_bytes += static_cast<std::uint32_t>(piece_bytes);
  }
  ++next_number;
  return true;
}

std::array<int, 2> bus_module::socket_descriptors() const {
  return {inbox.get(zmq::sockopt::fd), outlet.get(zmq::sockopt::fd)};
}

bool bus_module::has_work() {
  return waiting || is_readable(inbox) || is_readable(outlet);
}

// The subscription is first known here, so only from now on the listener receives all messages.
void bus_module::greet_new_listeners() {
  zmq::message_t subscription;
  while (receive_now(outlet, subscription)) {
    if (!subscription.empty() && subscription.data<unsigned char>()[0] == 1)
      send_frame({frame_kind::hello, session, next_number, 0, 0}, nullptr, 0);
  }
}

// Listeners try again every 20 to 40 ms while the module is away.
void bus_module::settle() {
  const auto end = steady_clock::now() + settle_time;
  zmq::pollitem_t item{outlet.handle(), 0, ZMQ_POLLIN, 0};
  for (auto now = steady_clock::now(); now < end; now = steady_clock::now()) {
    const auto left = std::chrono::duration_cast<milliseconds>(end - now) + milliseconds(1);
    zmq_poll(&item, 1, static_cast<long>(left.count()));
    greet_new_listeners();
  }
}

// The inbox puts the sender's address before each message.
void bus_module::receive() {
  zmq::message_t sender;
  if (!receive_now(inbox, sender))
    return;
  zmq::message_t message;
  int parts = 0;
  for (bool more = sender.more(); more && receive_now(inbox, message); more = message.more())
    ++parts;
  if (parts != 1 || message.empty() || message.size() - 1 > max_payload_bytes)
    return;
  const auto kind = static_cast<inbox_kind>(message.data<unsigned char>()[0]);
  if (kind == inbox_kind::data)
    waiting = std::move(message);
  else if (kind == inbox_kind::leave)
    leave_received = true;
  else
    return;
  answer(sender);
}

void bus_module::answer(zmq::message_t &sender) {
  zmq::message_t taken(&taken_answer, 1);
  if (send_now(inbox, sender, zmq::send_flags::sndmore))
    send_now(inbox, taken, zmq::send_flags::none);
}

bool bus_module::send_frame(frame_header_t header, const char *piece, std::size_t piece_bytes) {
  zmq::message_t frame;
  if (zmq_msg_init_size(frame.handle(), frame_header_bytes + piece_bytes) != 0)
    return false;
  write_frame_header(header, frame.data());
  if (piece_bytes > 0)
    std::memcpy(frame.data<char>() + frame_header_bytes, piece, piece_bytes);
  return send_now(outlet, frame, zmq::send_flags::none);
}

} // namespace vemk
