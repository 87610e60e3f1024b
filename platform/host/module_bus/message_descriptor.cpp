#include "module_bus/message_descriptor.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include "module_bus/bus_folder.h"

namespace vemk {

message_descriptor::message_descriptor(const std::array<int, 2> &sockets)
    : watched(epoll_create1(EPOLL_CLOEXEC)), wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  for (const int source : {sockets[0], sockets[1], wake.get()})
    watch(source);
}

void message_descriptor::set_readable(bool wanted) {
  if (wanted == readable)
    return;
  eventfd_t count = 1;
  const int result = wanted ? eventfd_write(wake.get(), count) : eventfd_read(wake.get(), &count);
  if (result == 0)
    readable = wanted;
}

void message_descriptor::watch(int source) {
  epoll_event entry{};
  entry.events = EPOLLIN;
  if (epoll_ctl(watched.get(), EPOLL_CTL_ADD, source, &entry) != 0)
    throw bus_error("there is no descriptor or memory left to wait with");
}

} // namespace vemk
