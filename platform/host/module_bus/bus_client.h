/// The other side of the bus: sending to a module and listening to one.
///
/// A client may come before the module and outlive it; it connects again whenever the module is
/// back. Deadlines are on the steady clock; time_point::max() waits without end.
///
/// Threading: each object on one thread at a time. Errors: constructors throw bus_error when the
/// folder's path is too long for a socket address.
#ifndef VEMK_MODULE_BUS_BUS_CLIENT_H
#define VEMK_MODULE_BUS_BUS_CLIENT_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include <zmq.hpp>

#include "module_bus/bus_wire.h"

namespace vemk {

using bus_deadline = std::chrono::steady_clock::time_point;

/// Sends messages to one module, which takes them in order.
///
/// Messages that the module has not taken when the object goes away are lost; call
/// wait_until_taken() before.
class bus_sender {
public:
  bus_sender(const std::string &folder, int module_id);

  /// Sends one message, or keeps it for a module that is not there yet; wait_until_taken() shows
  /// which. False when there was no room for the message before the deadline.
  /// REQUIRES: payload.size() <= max_payload_bytes
  bool send(std::string_view payload, bus_deadline deadline);

  /// Asks the module to leave the bus; otherwise as send().
  bool send_leave(bus_deadline deadline);

  /// True once the module has taken all messages. False at the deadline: the module does not take
  /// messages, or has left the bus with some of them.
  bool wait_until_taken(bus_deadline deadline);

private:
  bool post(inbox_kind kind, std::string_view payload, bus_deadline deadline);
  void take_answers();

  zmq::context_t context;
  zmq::socket_t socket;
  int unanswered = 0;
};

/// Receives every message of one module from the subscription on.
class bus_listener {
public:
  bus_listener(const std::string &folder, int module_id);

  /// True once the module is there and sends to this listener; false when the deadline came first.
  bool wait_until_subscribed(bus_deadline deadline);

  /// Returns the next message, or nothing when none was complete at the deadline.
  std::optional<std::string> receive(bus_deadline deadline);

  /// Messages known to be lost so far, because this listener did not keep up.
  std::uint64_t lost() const { return reassembler.lost(); }

private:
  bool read_frame(bus_deadline deadline);

  zmq::context_t context;
  zmq::socket_t socket;
  message_reassembler reassembler;
  std::deque<std::string> complete;
};

} // namespace vemk

#endif
