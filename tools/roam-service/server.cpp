#include "server.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace vemk {
namespace {

int make_event() {
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event < 0)
    throw std::system_error(errno, std::generic_category(), "eventfd");
  return event;
}

short wanted_events(const connection &one, service_clock::time_point now) {
  const int wanted = (one.wants_to_read() ? POLLIN : 0) | (one.wants_to_write(now) ? POLLOUT : 0);
  return static_cast<short>(wanted);
}

} // namespace

server::server(const std::string &bind_address, int port, server_events_t owner_events)
    : events(std::move(owner_events)), door(bind_address, port), wake_event(make_event()) {}

server::~server() {
  close(wake_event);
}

void server::wake() const {
  const uint64_t one = 1;
  (void)!write(wake_event, &one, sizeof one);
}

bool server::serve_once(std::chrono::milliseconds longest_wait) {
  const auto now = service_clock::now();
  const size_t known = all.size();
  std::vector<pollfd> wanted;
  wanted.reserve(known + 2);
  wanted.push_back({wake_event, POLLIN, 0});
  // A negative descriptor is passed over.
  wanted.push_back({known < most_connections ? door.descriptor() : -1, POLLIN, 0});
  for (const auto &one : all)
    wanted.push_back({one->descriptor(), wanted_events(*one, now), 0});
  if (poll(wanted.data(), wanted.size(), wait_ms(longest_wait)) < 0)
    return false;
  if (wanted[1].revents != 0)
    accept_one();
  for (size_t index = 0; index < known; ++index)
    serve(*all[index], wanted[index + 2].revents);
  remove_gone();
  uint64_t count = 0;
  return wanted[0].revents != 0 && read(wake_event, &count, sizeof count) > 0;
}

int server::wait_ms(std::chrono::milliseconds longest_wait) const {
  auto wait = longest_wait;
  const auto now = service_clock::now();
  for (const auto &one : all)
    if (const auto due = one->next_due(); due && *due > now)
      wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(*due - now));
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(wait.count(), 0));
}

void server::accept_one() {
  std::string peer;
  const int accepted = door.accept(peer);
  if (accepted < 0)
    return;
  if (!addresses.has_room_for(peer)) {
    close(accepted);
    return;
  }
  addresses.add(peer);
  all.push_back(std::make_unique<connection>(accepted, ++last_number, peer));
}

void server::serve(connection &one, short happened) {
  if (one.wants_to_read()) {
    if (happened != 0 && happened != POLLOUT)
      one.read_some();
  } else if ((happened & (POLLERR | POLLHUP)) != 0) {
    one.lose();
  }
  take_input(one);
  send_output(one);
  one.drop_if_overdue(service_clock::now());
}

void server::take_input(connection &one) {
  if (one.request_too_long()) {
    std::fprintf(stderr,
                 "roam-service: refused a connection: its request is longer than %zu bytes\n",
                 connection::longest_request_bytes);
    one.answer(http_answer("431 Request Header Fields Too Large", "text/plain",
                           "the request is too long\n"));
  }
  if (const auto head = one.take_request()) {
    if (const auto request = parse_request(*head))
      events.request(one, *request);
    else
      one.answer(http_answer("400 Bad Request", "text/plain", "this is no HTTP request\n"));
  }
  while (auto message = one.take_message())
    events.message(one, std::move(*message));
}

void server::send_output(connection &one) {
  for (const auto &message : one.send_due(service_clock::now()))
    if (message->frame_count > 0)
      events.sent(one, *message);
}

void server::remove_gone() {
  for (const auto &one : all)
    if (one->gone()) {
      events.gone(*one);
      addresses.remove(one->peer());
    }
  all.erase(std::remove_if(all.begin(), all.end(), [](const auto &one) { return one->gone(); }),
            all.end());
}

} // namespace vemk
