/// One module on the bus, from joining to leaving.
#ifndef VEMK_MODULE_BUS_BUS_MODULE_H
#define VEMK_MODULE_BUS_BUS_MODULE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include <zmq.hpp>

#include "module_bus/bus_gate.h"
#include "module_bus/bus_wire.h"

namespace vemk {

/// Limits a module to one process, by a lock that ends with its holder in any case.
///
/// The destructor removes the module's socket files while it still holds the lock.
/// Errors: the constructor throws bus_error when another process has the module.
class module_claim {
public:
  module_claim(const std::string &folder, int module_id);
  ~module_claim();
  module_claim(const module_claim &) = delete;
  module_claim &operator=(const module_claim &) = delete;

  const std::string inbox;
  const std::string outlet;
  const std::string inner_inbox;
  const std::string inner_outlet;

private:
  const int lock;
};

/// A module that has joined the bus: its inbox and its outlet.
///
/// Beyond the whole messages that wait to be taken, a peer costs the module the memory of at most
/// one of the largest size. A message of several parts ends its sender's connection.
///
/// Threading: all calls on one thread. The messaging library and the gate have threads of their
///   own.
/// Ownership: owns sockets, their files and the module's lock. The destructor releases them all,
///   and waits at most 200 ms for messages still on their way.
/// Errors: the constructor throws bus_error; the other calls do not throw.
class bus_module {
public:
  /// Joins, and gives waiting listeners the time to come back.
  bus_module(const std::string &folder, int module_id);

  /// Takes the next message as a packed record for free(), or returns null when there is none.
  /// Never blocks. A record that cannot be allocated is tried again with the next call.
  void *take_record();

  /// True once a peer has asked the module to leave.
  bool told_to_leave() const { return leave_received; }

  /// Sends to every listener and never waits for one. False when nothing was sent.
  bool publish(const void *data, std::uint32_t length);

  /// The descriptors of the sockets, for a message_descriptor.
  std::array<int, 2> socket_descriptors() const;

  /// True when the next take_record() may have something to do. When false, the first event after
  /// this call makes one of socket_descriptors() readable; publish() may take that back.
  bool has_work();

private:
  void greet_new_listeners();
  void settle();
  void receive();
  void answer(zmq::message_t &sender);
  bool send_frame(frame_header_t header, const char *piece, std::size_t piece_bytes);

  // Destroyed in reverse order: the sockets, the context, the gate, the claim. The context waits
  // until the library can no longer touch the files of the next join. The library's last bytes go
  // through the gate.
  module_claim claim;
  std::optional<bus_gate> gate;
  zmq::context_t context;
  zmq::socket_t inbox;
  zmq::socket_t outlet;
  const std::uint32_t session;
  std::uint64_t next_number = 0;
  std::optional<zmq::message_t> waiting;
  bool leave_received = false;
};

} // namespace vemk

#endif
