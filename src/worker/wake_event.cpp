#include "worker/wake_event.h"

#include <algorithm>
#include <cstdio>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "worker/abstract_worker.h"

namespace vemk {

wake_event::wake_event() : descriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (descriptor < 0)
    perror("eventfd");
}

wake_event::~wake_event() {
  if (descriptor >= 0)
    close(descriptor);
}

void wake_event::signal() const {
  eventfd_write(descriptor, 1);
}

bool wake_event::wait(std::int32_t milliseconds, int readable_descriptor) const {
  if (descriptor < 0)
    milliseconds = std::min(milliseconds, abstract_worker::usual_step_pause_us / 1000);
  // poll leaves out a negative descriptor.
  pollfd events[] = {{descriptor, POLLIN, 0}, {readable_descriptor, POLLIN, 0}};
  if (poll(events, 2, milliseconds) <= 0)
    return false;
  eventfd_t count = 0;
  eventfd_read(descriptor, &count);
  return events[1].revents != 0;
}

} // namespace vemk
