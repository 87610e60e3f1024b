#include "worker/queue_bound.h"

namespace vemk {

queue_bound::queue_bound(message_queue_t *bounded_queue, message_queue_t *consumed_queue)
    : bounded(bounded_queue), consumed(consumed_queue), stopped(false) {}

bool queue_bound::stops_producer() {
  if (!stopped.load(std::memory_order_relaxed) && bounded->payload_bytes() < limit_bytes)
    return false;
  stopped.store(true, std::memory_order_relaxed);
  // The consumer may have taken the last message before it could see the stop. The queue's lock
  // orders the two.
  if (!is_half_empty())
    return true;
  stopped.store(false, std::memory_order_relaxed);
  return false;
}

void queue_bound::after_take() {
  if (!stopped.load(std::memory_order_relaxed) || !is_half_empty())
    return;
  stopped.store(false, std::memory_order_relaxed);
  consumed->notify_consumer();
}

bool queue_bound::is_half_empty() {
  return bounded->payload_bytes() <= limit_bytes / 2;
}

} // namespace vemk
