/// The bus worker.
#ifndef VEMK_IPC_IPC_WORKER_H
#define VEMK_IPC_IPC_WORKER_H

#include <cstdint>
#include <memory>

#include "worker/abstract_worker.h"
#include "worker/buffer_info.h"
#include "worker/message_queue.h"

namespace vemk {

/// The thread "ipc": joins the module-messaging bus. The thread copies every message for this
/// module into the bus-to-service queue, and sends every message of the service-to-bus queue onto
/// the bus. The bytes do not change.
///
/// Each step takes at most one message, from the bus before the queue. When there is neither, the
/// worker pauses for 100 ms. When the bus drops the module, the worker leaves and tries to join
/// every 300 ms.
///
/// Threading: as abstract_worker. The bus library is called from this thread only (from the owner's
///   in the destructor), and never with a queue's lock held.
/// Ownership: the queues and the run flag are the caller's and outlive the worker.
/// Errors: no result of the bus library is checked. A message for which there is no memory is lost;
///   queue errors are thrown, which ends the process.
class ipc_worker : public abstract_worker {
public:
  /// `module` is the identifier under which the daemon joins the bus.
  ipc_worker(message_queue_t *from_bus, message_queue_t *to_bus, std::int32_t module,
             const bool *keep_running_flag);

  bool init() override;
  bool run_once() override;
  void deinit() override;

  /// True while `*flag` is true and the library's module-loop flag says that the module is live.
  bool keep_running(const bool *flag) override;

  /// Leaves the bus, also when deinit() already did.
  ~ipc_worker() override;

protected:
  /// Sends the buffer onto the bus; an empty one, or none, is dropped.
  void send_to_bus(const buffer_info_t &buffer);
  void send_to_bus(const std::shared_ptr<buffer_info_t> &buffer);

  /// Copies the payload of a bus record into the bus-to-service queue. The record stays the
  /// caller's.
  void forward_bus_message(const void *message);

  message_queue_t *bus_to_ws_queue;
  message_queue_t *ws_to_bus_queue;

private:
  void leave_bus();

  std::int32_t module_id;
};

} // namespace vemk

#endif
