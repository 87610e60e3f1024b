/// The bound of a queue whose producer can wait.
#ifndef VEMK_WORKER_QUEUE_BOUND_H
#define VEMK_WORKER_QUEUE_BOUND_H

#include <atomic>
#include <cstddef>

#include "worker/message_queue.h"

namespace vemk {

/// Stops the producer of a queue when the queue holds 1 MiB, and lets it continue when half of that
/// is left. So the queue holds at most 1 MiB and what the producer adds at once.
///
/// Threading: stops_producer() on the producer's thread, after_take() on the consumer's.
/// Ownership: none; both queues outlive this.
class queue_bound {
public:
  static constexpr std::size_t limit_bytes = 1024 * 1024;

  /// The producer of `bounded_queue` waits as the consumer of `consumed_queue`, and is woken so.
  queue_bound(message_queue_t *bounded_queue, message_queue_t *consumed_queue);

  /// Whether the producer may not add a message now. It is woken when it may again.
  bool stops_producer();

  /// Call this after each message that was taken.
  void after_take();

private:
  bool is_half_empty();

  message_queue_t *bounded;
  message_queue_t *consumed;
  std::atomic<bool> stopped;
};

} // namespace vemk

#endif
