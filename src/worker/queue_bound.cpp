#include "worker/queue_bound.h"

namespace vemk {

queue_bound::queue_bound(message_queue_t *bounded_queue, message_queue_t *consumed_queue)
    : bounded(bounded_queue), consumed(consumed_queue), stopped(false) {}

bool queue_bound::stops_producer() {
  if (!stopped && bounded->payload_bytes() < limit_bytes)
    return false;
  stopped = true;
  // The consumer may have taken the last message before it could see the stop.
  if (is_half_empty())
    stopped = false;
  return stopped;
}

void queue_bound::after_take() {
  if (!stopped || !is_half_empty())
    return;
  stopped = false;
  consumed->notify_consumer();
}

bool queue_bound::is_half_empty() {
  return bounded->payload_bytes() <= limit_bytes / 2;
}

} // namespace vemk
