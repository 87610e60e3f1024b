#include "connection.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace vemk {
namespace {

constexpr size_t chunk_bytes = 64 * 1024;
constexpr std::chrono::seconds request_patience{10};
constexpr std::chrono::seconds close_patience{1};
// What an allocation takes beyond what it was asked for.
constexpr size_t allocation_bytes = 2 * sizeof(void *);

bool would_block() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

outgoing_ptr make_plain_bytes(std::string bytes) {
  return std::make_shared<const outgoing_t>(outgoing_t{std::move(bytes), {}});
}

} // namespace

size_t outgoing_t::memory_bytes() const {
  // Two texts, this with its count of owners, and its place in the queue.
  return bytes.capacity() + summary.beginning.capacity() + sizeof *this + sizeof(outgoing_ptr) +
         sizeof(service_clock::time_point) + 4 * allocation_bytes;
}

outgoing_ptr make_outgoing(opcode_t kind, std::string_view payload, size_t fragments) {
  return std::make_shared<const outgoing_t>(
      outgoing_t{encode_message(kind, payload, fragments), summary_of(kind, payload, fragments)});
}

connection::connection(int socket_descriptor, unsigned int number, std::string peer_address)
    : socket(socket_descriptor), own_number(number), address(std::move(peer_address)),
      deadline(service_clock::now() + request_patience) {}

connection::~connection() {
  ::close(socket);
}

short connection::wanted_events(service_clock::time_point now) const {
  return static_cast<short>((wants_to_read() ? POLLIN : 0) | (wants_to_write(now) ? POLLOUT : 0));
}

void connection::process_events(int happened) {
  if (wants_to_read() && (happened & ~POLLOUT) != 0)
    read_some();
  else if ((happened & (POLLERR | POLLHUP)) != 0)
    lose();
}

bool connection::wants_to_read() const {
  return stage == stage_t::open || stage == stage_t::closing ? may_read : !gone();
}

bool connection::wants_to_write(service_clock::time_point now) const {
  return !gone() && !output.empty() && output.front().due <= now;
}

void connection::read_some() {
  // A copy of what is left, which is little, gives back the memory of a long message.
  if (input_taken > 0)
    input = input.substr(std::exchange(input_taken, 0));
  const size_t before = input.size();
  input.resize(before + chunk_bytes);
  const ssize_t length = recv(socket, input.data() + before, chunk_bytes, MSG_DONTWAIT);
  const bool ended = length == 0 || (length < 0 && !would_block());
  input.resize(before + (length > 0 ? static_cast<size_t>(length) : 0));
  if (ended)
    stage = stage_t::gone;
  else if (stage == stage_t::finishing)
    input.clear();
}

std::deque<outgoing_ptr> connection::send_due(service_clock::time_point now) {
  std::deque<outgoing_ptr> sent;
  while (wants_to_write(now)) {
    const std::string &bytes = output.front().what->bytes;
    const ssize_t length = ::send(socket, bytes.data() + sent_of_first,
                                  bytes.size() - sent_of_first, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (length < 0) {
      if (!would_block())
        stage = stage_t::gone;
      return sent;
    }
    sent_of_first += static_cast<size_t>(length);
    if (sent_of_first < bytes.size())
      return sent;
    queued_bytes -= output.front().what->memory_bytes();
    sent_of_first = 0;
    sent.push_back(std::move(output.front().what));
    output.pop_front();
  }
  stop_sending_when_done();
  return sent;
}

void connection::drop_if_overdue(service_clock::time_point now) {
  if (!open() && now >= deadline)
    stage = stage_t::gone;
}

std::optional<std::string> connection::take_request() {
  if (stage != stage_t::request)
    return std::nullopt;
  const size_t end = input.find(request_end);
  if (end == std::string::npos && input.size() <= longest_request_bytes)
    return std::nullopt;
  std::string head = input.substr(0, end);
  input_taken = std::min(input.size(), head.size() + request_end.size());
  return head;
}

std::optional<message_t> connection::take_message() {
  if ((stage != stage_t::open && stage != stage_t::closing) || !may_read)
    return std::nullopt;
  std::string_view rest = std::string_view(input).substr(input_taken);
  auto message = reader.next(rest);
  input_taken = input.size() - rest.size();
  if (reader.failure() != 0) {
    close_with(reader.failure());
    finish();
  } else if (message && message->kind == opcode_t::close) {
    if (open())
      queue(make_outgoing(opcode_t::close, message->payload));
    finish();
  }
  return message;
}

void connection::answer(std::string http_answer) {
  queue(make_plain_bytes(std::move(http_answer)));
  finish();
}

void connection::accept_upgrade(std::string http_answer) {
  queue(make_plain_bytes(std::move(http_answer)));
  stage = stage_t::open;
}

bool connection::send(outgoing_ptr message, std::chrono::milliseconds delay) {
  if (!open())
    return !gone();
  if (queued_bytes > 0 && queued_bytes + message->memory_bytes() > most_queued_bytes) {
    stage = stage_t::gone;
    return false;
  }
  queue(std::move(message), delay);
  return true;
}

void connection::close_with(int code) {
  if (!open())
    return;
  queue(make_outgoing(opcode_t::close, close_payload(code)));
  stage = stage_t::closing;
  deadline = service_clock::now() + close_patience;
}

void connection::reset() {
  const linger at_once{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  stage = stage_t::gone;
}

void connection::queue(outgoing_ptr what, std::chrono::milliseconds delay) {
  queued_bytes += what->memory_bytes();
  output.push_back({std::move(what), service_clock::now() + delay});
}

void connection::finish() {
  if (gone())
    return;
  stage = stage_t::finishing;
  deadline = service_clock::now() + close_patience;
}

// The other end may still be sending, and closing right away would take our last bytes from it.
void connection::stop_sending_when_done() {
  if (stage != stage_t::finishing || !output.empty() || end_announced)
    return;
  end_announced = true;
  shutdown(socket, SHUT_WR);
}

} // namespace vemk
