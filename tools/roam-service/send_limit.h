#ifndef VEMK_ROAM_SERVICE_SEND_LIMIT_H
#define VEMK_ROAM_SERVICE_SEND_LIMIT_H

#include <cstddef>

namespace vemk {

/// How much memory may wait to be sent on one connection. What is counted is not the payload but
/// what keeping a message takes: a small one takes far more than its payload.
constexpr size_t most_queued_bytes = 256U * 1024 * 1024;

/// What an allocation takes beyond what it was asked for.
constexpr size_t allocation_bytes = 2 * sizeof(void *);

/// Whether another message may be queued. One always fits, so that the limit bounds the queue and
/// not the message.
constexpr bool may_queue(size_t queued_bytes, size_t more_bytes) {
  return queued_bytes == 0 || queued_bytes + more_bytes <= most_queued_bytes;
}

} // namespace vemk

#endif
