/// The descriptor that a module waits with for its messages.
#ifndef VEMK_MODULE_BUS_MESSAGE_DESCRIPTOR_H
#define VEMK_MODULE_BUS_MESSAGE_DESCRIPTOR_H

#include <array>

#include "module_bus/descriptor.h"

namespace vemk {

/// One descriptor over those of the messaging library's sockets.
///
/// The library makes a socket's descriptor readable with an event and keeps it so until a call on
/// that socket. An event that such a call has found is no longer seen here; set_readable() stands
/// in for it.
/// Threading: none of its own; not thread-safe.
/// Ownership: its descriptor and the one behind set_readable(), not those of the sockets.
/// Errors: the constructor throws bus_error when there is no descriptor or memory left.
class message_descriptor {
public:
  explicit message_descriptor(const std::array<int, 2> &sockets);

  /// Readable, however often it is waited for, until the sockets have seen their events.
  int get() const { return watched.get(); }

  /// Whether the descriptor is readable without an event at a socket, too. It is not at first.
  void set_readable(bool wanted);

private:
  void watch(int source);

  const descriptor watched;
  const descriptor wake;
  bool readable = false;
};

} // namespace vemk

#endif
