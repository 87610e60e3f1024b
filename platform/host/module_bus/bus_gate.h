/// The gate between the peers of a module and the sockets of the messaging library.
#ifndef VEMK_MODULE_BUS_BUS_GATE_H
#define VEMK_MODULE_BUS_BUS_GATE_H

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "module_bus/frame_watch.h"

namespace vemk {

/// A socket file that peers connect to, and the library's own that their bytes go to.
struct gate_door_t {
  std::string path;
  std::string inner_path;
  frame_limits_t limits;
};

/// Passes the bytes of each connection on, both ways, until a peer sends bytes that frame_watch
/// does not let pass. Then that connection ends; the other ones go on.
///
/// Threading: one thread of its own, from the constructor to the end of the destructor.
/// Ownership: the sockets and the connections. The socket files at the doors are the caller's to
///   remove.
/// Errors: the constructor throws bus_error when a door cannot be opened, and std::system_error
///   when a thread cannot be started. A connection without descriptors or memory for it is ended;
///   its peer tries again.
class bus_gate {
public:
  /// REQUIRES: the library has bound its sockets.
  explicit bus_gate(const std::vector<gate_door_t> &doors);

  /// Closes the doors. The bytes that the library has written still get 100 ms to reach the peers.
  /// REQUIRES: the library has closed its sockets, or will without this thread.
  ~bus_gate();
  bus_gate(const bus_gate &) = delete;
  bus_gate &operator=(const bus_gate &) = delete;

private:
  class loop;

  const std::unique_ptr<loop> passing;
  std::thread thread;
};

} // namespace vemk

#endif
