/// The status messages of service "internal-ipc". They report to other modules whether the
/// connection to the roaming service is up.
#ifndef VEMK_JSON_STATUS_MESSAGES_H
#define VEMK_JSON_STATUS_MESSAGES_H

#include "worker/buffer_info.h"
#include "worker/message_queue.h"

namespace vemk {

/// The kind of a message from the bus.
enum class bus_message_kind {
  /// A message for the roaming service.
  foreign,
  /// For the daemon's own service, but not a status request: dropped.
  internal,
  /// Asks for the connection's status.
  status_request,
};

/// Recognises a message by its members "service" and "cmd", in any letter case. The data is read as
/// a zero-terminated string. It is parsed only if it holds the service's name, or a backslash,
/// which can spell the name.
bus_message_kind classify_bus_message(const buffer_info_t &message);

/// Builds the status message, "connected" or "disconnected", and pushes it into the queue. Without
/// memory for its text the message is lost; the queue's own errors are thrown.
void queue_status_message(message_queue_t &queue, bool connected);

} // namespace vemk

#endif
