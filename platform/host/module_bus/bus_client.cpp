#include "module_bus/bus_client.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "module_bus/bus_folder.h"

namespace vemk {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A module gives waiting listeners 100 ms to come back, enough for three attempts.
constexpr int reconnect_ms = 20;

// With the library's default a sender could hold a thousand messages of any size.
constexpr int sender_messages = 64;

constexpr int listener_pieces = 10000;

// In steps of at most a minute, so that no distance to a deadline overflows the poll's argument.
void wait_for(zmq::socket_t &socket, short events, bus_deadline deadline) {
  const auto now = steady_clock::now();
  if (now >= deadline)
    return;
  constexpr milliseconds longest_step{60000};
  const bool far = deadline - now > longest_step;
  const auto step =
      far ? longest_step
          : std::chrono::duration_cast<milliseconds>(deadline - now) + milliseconds(1);
  zmq::pollitem_t item{socket.handle(), 0, events, 0};
  zmq_poll(&item, 1, static_cast<long>(step.count()));
}

bool receive_now(zmq::socket_t &socket, zmq::message_t &message) {
  try {
    return socket.recv(message, zmq::recv_flags::dontwait).has_value();
  } catch (const zmq::error_t &error) {
    if (error.num() == EINTR)
      return false;
    throw;
  }
}

bool send_now(zmq::socket_t &socket, zmq::message_t &message) {
  try {
    return socket.send(message, zmq::send_flags::dontwait).has_value();
  } catch (const zmq::error_t &error) {
    if (error.num() == EINTR)
      return false;
    throw;
  }
}

} // namespace

bus_sender::bus_sender(const std::string &folder, int module_id)
    : socket(context, zmq::socket_type::dealer) {
  // Without ZMQ_IMMEDIATE: with it, the answers that wait here would be dropped when the module
  // closes the connection.
  socket.set(zmq::sockopt::reconnect_ivl, reconnect_ms);
  socket.set(zmq::sockopt::sndhwm, sender_messages);
  socket.set(zmq::sockopt::rcvhwm, max_unanswered);
  socket.set(zmq::sockopt::linger, 0);
  socket.connect("ipc://" + inbox_path(folder, module_id));
}

bool bus_sender::send(std::string_view payload, bus_deadline deadline) {
  return post(inbox_kind::data, payload, deadline);
}

bool bus_sender::send_leave(bus_deadline deadline) {
  return post(inbox_kind::leave, {}, deadline);
}

bool bus_sender::wait_until_taken(bus_deadline deadline) {
  take_answers();
  while (unanswered > 0 && steady_clock::now() < deadline) {
    wait_for(socket, ZMQ_POLLIN, deadline);
    take_answers();
  }
  return unanswered == 0;
}

bool bus_sender::post(inbox_kind kind, std::string_view payload, bus_deadline deadline) {
  zmq::message_t message(payload.size() + 1);
  message.data<unsigned char>()[0] = static_cast<unsigned char>(kind);
  if (!payload.empty())
    std::memcpy(message.data<char>() + 1, payload.data(), payload.size());
  while (true) {
    take_answers();
    const bool answers_only = unanswered >= max_unanswered;
    if (!answers_only && send_now(socket, message)) {
      ++unanswered;
      return true;
    }
    if (steady_clock::now() >= deadline)
      return false;
    const int events = answers_only ? ZMQ_POLLIN : ZMQ_POLLIN | ZMQ_POLLOUT;
    wait_for(socket, static_cast<short>(events), deadline);
  }
}

void bus_sender::take_answers() {
  zmq::message_t answer;
  while (receive_now(socket, answer)) {
    if (answer.size() == 1 && answer.data<char>()[0] == taken_answer && unanswered > 0)
      --unanswered;
  }
}

bus_listener::bus_listener(const std::string &folder, int module_id)
    : socket(context, zmq::socket_type::sub) {
  socket.set(zmq::sockopt::reconnect_ivl, reconnect_ms);
  socket.set(zmq::sockopt::rcvhwm, listener_pieces);
  socket.set(zmq::sockopt::linger, 0);
  socket.set(zmq::sockopt::subscribe, "");
  socket.connect("ipc://" + outlet_path(folder, module_id));
}

bool bus_listener::wait_until_subscribed(bus_deadline deadline) {
  while (!reassembler.subscribed() && read_frame(deadline)) {
  }
  return reassembler.subscribed();
}

std::optional<std::string> bus_listener::receive(bus_deadline deadline) {
  while (complete.empty() && read_frame(deadline)) {
  }
  if (complete.empty())
    return std::nullopt;
  std::string message = std::move(complete.front());
  complete.pop_front();
  return message;
}

// False when no frame came before the deadline.
bool bus_listener::read_frame(bus_deadline deadline) {
  zmq::message_t frame;
  while (!receive_now(socket, frame)) {
    if (steady_clock::now() >= deadline)
      return false;
    wait_for(socket, ZMQ_POLLIN, deadline);
  }
  if (auto message = reassembler.add({frame.data<char>(), frame.size()}))
    complete.push_back(std::move(*message));
  return true;
}

} // namespace vemk
