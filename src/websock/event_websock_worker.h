/// The WebSocket worker of the event-driven pacing.
#ifndef VEMK_WEBSOCK_EVENT_WEBSOCK_WORKER_H
#define VEMK_WEBSOCK_EVENT_WEBSOCK_WORKER_H

#include <atomic>
#include <cstdint>
#include <functional>

#include "websock/websock_worker.h"
#include "worker/queue_bound.h"
#include "worker/wake_event.h"

namespace vemk {

/// A WebSocket worker that sleeps until there is something to do.
///
/// A step ends with the library's next event, with a message in the bus-to-service queue, or when a
/// ping or a timer is due. A writeable callback is requested when there is something to send, and
/// sends up to 64 messages, for as long as the socket takes them. Reading from the service stops
/// while the service-to-bus queue is full. Between attempts the worker sleeps until a message
/// arrives, and handles it at once; messages behind it follow every 50 ms.
///
/// Dumps are not made, and the library's lines not taken, while the log does not show them.
///
/// Destroy it only behind its deinit(): the base's destructor would call the base's handlers.
class event_websock_worker : public websock_worker {
public:
  /// As websock_worker's, with the library bound and the bounds of both queues.
  event_websock_worker(message_queue_t *from_bus, message_queue_t *to_bus, const char *server_host,
                       const char *server_path, std::int32_t server_port,
                       const bool *keep_running_flag, std::uint32_t first_delay,
                       std::uint32_t largest_delay, bool only_whole_messages,
                       queue_bound *from_bus_bound, queue_bound *to_bus_bound);

  bool init() override;
  bool run_once() override;

protected:
  int lws_callback(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                   std::size_t length) override;
  int process_client_writeable(lws *wsi, void *user, void *in) override;
  void request_writeable(lws *wsi) override;
  void pass_delay(std::int32_t seconds, const std::function<void()> &take_one) override;
  void dump(const buffer_info_t &message) const override;

private:
  /// Requests a writeable callback if there is something to send. Returns how long the library may
  /// wait for its next event.
  std::int32_t prepare_wait();

  /// Sends until the queue is empty, the library holds a part of a message back, or a message
  /// fails. Returns whether there may be more to send.
  bool send_batch(lws *wsi);

  /// Stops or resumes reading, as the service-to-bus queue fills and drains.
  void control_receiving();

  bool has_message();

  queue_bound *bus_to_ws_bound;
  queue_bound *ws_to_bus_bound;
  wake_event wake;
  /// The service has closed the connection, and the library waits for the socket's end.
  bool is_closing;
  bool is_receiving_held;
  /// Makes the bus thread wake this one although messages wait already.
  std::atomic<bool> waits_for_room;
};

} // namespace vemk

#endif
