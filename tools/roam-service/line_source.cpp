#include "line_source.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace vemk {
namespace {

int make_event() {
  const int event = eventfd(0, EFD_CLOEXEC);
  if (event < 0)
    throw std::system_error(errno, std::generic_category(), "eventfd");
  return event;
}

} // namespace

line_source::line_source(int input_descriptor, std::function<void()> on_lines)
    : input(input_descriptor), notify(std::move(on_lines)), stop_event(make_event()),
      reader([this] { read_until_stopped(); }) {}

line_source::~line_source() {
  {
    const std::lock_guard<std::mutex> guard(mutex);
    stopping = true;
  }
  taken.notify_all();
  const uint64_t one = 1;
  (void)!write(stop_event, &one, sizeof one);
  reader.join();
  close(stop_event);
}

std::deque<std::string> line_source::take() {
  std::deque<std::string> result;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    result.swap(lines);
    waiting_bytes = 0;
  }
  taken.notify_all();
  return result;
}

void line_source::read_until_stopped() {
  std::vector<char> chunk(64 * 1024);
  while (wait_for_room() && wait_for_input()) {
    const ssize_t length = read(input, chunk.data(), chunk.size());
    if (length < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (length <= 0)
      break;
    accept_bytes({chunk.data(), static_cast<size_t>(length)});
    notify();
  }
  if (!line.empty() || too_long) {
    end_line();
    notify();
  }
}

bool line_source::wait_for_input() const {
  pollfd wanted[2] = {{stop_event, POLLIN, 0}, {input, POLLIN, 0}};
  while (poll(wanted, 2, -1) < 0)
    if (errno != EINTR)
      return false;
  return wanted[0].revents == 0;
}

bool line_source::wait_for_room() {
  std::unique_lock<std::mutex> guard(mutex);
  taken.wait(guard, [this] { return stopping || waiting_bytes <= most_waiting_bytes; });
  return !stopping;
}

void line_source::accept_bytes(std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t end = bytes.find('\n');
    const std::string_view piece = bytes.substr(0, end);
    too_long = too_long || line.size() + piece.size() > longest_line_bytes;
    if (too_long)
      line.clear();
    else
      line.append(piece);
    if (end == std::string_view::npos)
      return;
    end_line();
    bytes.remove_prefix(end + 1);
  }
}

void line_source::end_line() {
  if (too_long) {
    std::fprintf(stderr, "roam-service: a line of more than %zu bytes was dropped; send less\n",
                 longest_line_bytes);
  } else {
    const std::lock_guard<std::mutex> guard(mutex);
    waiting_bytes += sizeof(std::string) + line.size();
    lines.push_back(std::move(line));
  }
  line = std::string();
  too_long = false;
}

} // namespace vemk
