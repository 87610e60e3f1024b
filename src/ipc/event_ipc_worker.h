/// The bus worker of the event-driven pacing.
#ifndef VEMK_IPC_EVENT_IPC_WORKER_H
#define VEMK_IPC_EVENT_IPC_WORKER_H

#include <cstdint>

#include "ipc/ipc_worker.h"
#include "worker/queue_bound.h"
#include "worker/wake_event.h"

namespace vemk {

/// A bus worker that sleeps until there is something to do.
///
/// Each step takes up to 64 messages from the bus, then up to 64 from the service-to-bus queue. It
/// leaves messages on the bus while the bus-to-service queue is full. Between steps it waits for
/// the queue, and for the bus's descriptor. A bus library without GetMsgDescriptor is asked every
/// millisecond after traffic, and less and less often, down to every 100 ms, without any. So is one
/// whose descriptor stays readable although there is no message, for a while.
class event_ipc_worker : public ipc_worker {
public:
  event_ipc_worker(message_queue_t *from_bus, message_queue_t *to_bus, std::int32_t module,
                   const bool *keep_running_flag, queue_bound *from_bus_bound,
                   queue_bound *to_bus_bound);

  ~event_ipc_worker() override;

  bool init() override;
  bool run_once() override;
  void pause_before_next_step() override;

private:
  bool take_from_bus();
  bool send_queued_to_bus();
  void wait_for_poll();

  queue_bound *bus_to_ws_bound;
  queue_bound *ws_to_bus_bound;
  wake_event wake;
  int bus_descriptor;
  /// Polls since the last message; with a descriptor, waits that it has ended without one.
  std::int32_t idle_waits;
  /// The bus-to-service queue was full in the last step.
  bool is_held_back;
};

} // namespace vemk

#endif
