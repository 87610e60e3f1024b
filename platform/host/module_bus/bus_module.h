/// One module on the bus, from joining to leaving.
#ifndef VEMK_MODULE_BUS_BUS_MODULE_H
#define VEMK_MODULE_BUS_BUS_MODULE_H

#include <cstdint>
#include <optional>
#include <string>

#include <zmq.hpp>

#include "module_bus/bus_gate.h"
#include "module_bus/bus_wire.h"

namespace vemk {

/// Keeps a module to one process, by a lock that ends with its holder, however that ends.
///
/// Removes the module's socket files when it goes, while the lock still keeps others from them.
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
/// Beyond the whole messages that wait to be taken, a peer costs it at most one of the largest
/// size. A message of several parts ends its sender's connection.
///
/// Threading: all calls on one thread. The messaging library and the gate have threads of their own
///   meanwhile.
/// Ownership: owns sockets, their files and the module's lock, and gives all of them back before
///   the destructor returns, which takes 200 ms at the most for messages still on their way.
/// Errors: the constructor throws bus_error; the other calls do not throw.
class bus_module {
public:
  /// Joins, and gives listeners that were waiting for the module the time to come back.
  bus_module(const std::string &folder, int module_id);

  /// Takes the next message as a packed record for free(), or returns null when there is none.
  /// Never blocks. A record that cannot be allocated is tried again with the next call.
  void *take_record();

  /// True once a peer has told the module to leave.
  bool told_to_leave() const { return leave_received; }

  /// Sends to every listener, without ever waiting for one. False when nothing was sent.
  bool publish(const void *data, std::uint32_t length);

private:
  void greet_new_listeners();
  void settle();
  void receive();
  void answer(zmq::message_t &sender);
  bool send_frame(frame_header_t header, const char *piece, std::size_t piece_bytes);

  // Destroyed from below: the sockets, then the context, which waits until nothing of the library
  // is left that could touch the files of the next join, then the gate, through which the library's
  // last words go, then the claim.
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
