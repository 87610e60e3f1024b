/// The connection status messages of service "internal-ipc", by which other modules learn whether
/// the connection to the roaming service is up.
#ifndef VEMK_JSON_STATUS_MESSAGES_H
#define VEMK_JSON_STATUS_MESSAGES_H

#include "worker/buffer_info.h"
#include "worker/message_queue.h"

namespace vemk {

/// What a message from the bus is to this daemon.
enum class bus_message_kind {
  /// A message for the roaming service.
  foreign,
  /// Of the daemon's own service, and not a request that has an answer: kept and dropped.
  internal,
  /// Asks for the connection's status.
  status_request,
};

/// Recognises a message by its members "service" and "cmd", in any letter case. The data is read
/// as a zero-terminated string, and parsed only when it holds the service's name or a backslash,
/// which can spell it.
bus_message_kind classify_bus_message(const buffer_info_t &message);

/// Builds the status message, "connected" or "disconnected", and pushes it into the queue. Without
/// memory for its text the message is lost; the queue's own errors are thrown.
void queue_status_message(message_queue_t &queue, bool connected);

} // namespace vemk

#endif
