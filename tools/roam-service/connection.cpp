#include "connection.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace vemk {
namespace {

constexpr size_t chunk_bytes = 64 * 1024;
constexpr std::string_view request_end = "\r\n\r\n";
constexpr std::chrono::seconds request_patience{10};
constexpr std::chrono::seconds close_patience{1};

bool would_block() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

std::shared_ptr<const outgoing_t> make_plain_bytes(std::string bytes) {
  auto result = std::make_shared<outgoing_t>();
  result->bytes = std::move(bytes);
  result->frame_count = 0;
  return result;
}

} // namespace

std::shared_ptr<const outgoing_t> make_outgoing(opcode_t kind, std::string_view payload,
                                                size_t fragments) {
  auto result = std::make_shared<outgoing_t>();
  result->bytes = encode_message(kind, payload, fragments);
  result->kind = kind;
  result->payload_bytes = payload.size();
  result->frame_count = fragments;
  result->beginning = payload.substr(0, recorded_bytes);
  return result;
}

size_t outgoing_t::memory_bytes() const {
  // Two texts, this with its count of owners, and its place in the queue.
  return bytes.capacity() + beginning.capacity() + sizeof *this +
         sizeof(std::shared_ptr<outgoing_t>) + sizeof(service_clock::time_point) +
         4 * allocation_bytes;
}

connection::connection(int socket_descriptor, unsigned int number, std::string peer_address)
    : socket(socket_descriptor), own_number(number), address(std::move(peer_address)),
      deadline(service_clock::now() + request_patience) {}

connection::~connection() {
  ::close(socket);
}

bool connection::wants_to_read() const {
  return stage == stage_t::open || stage == stage_t::closing ? may_read : !gone();
}

bool connection::wants_to_write(service_clock::time_point now) const {
  return !gone() && !output.empty() && output.front().due <= now;
}

std::optional<service_clock::time_point> connection::next_due() const {
  std::optional<service_clock::time_point> result;
  if (stage != stage_t::open)
    result = deadline;
  if (!output.empty() && (!result || output.front().due < *result))
    result = output.front().due;
  return result;
}

void connection::read_some() {
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

std::deque<std::shared_ptr<const outgoing_t>> connection::send_due(service_clock::time_point now) {
  std::deque<std::shared_ptr<const outgoing_t>> sent;
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
  if (stage != stage_t::open && now >= deadline)
    stage = stage_t::gone;
}

bool connection::request_too_long() const {
  if (stage != stage_t::request)
    return false;
  const size_t end = input.find(request_end);
  // Without its end it is longer by a byte at least.
  const size_t length = end == std::string::npos ? input.size() + 1 : end + request_end.size();
  return length > longest_request_bytes;
}

std::optional<std::string> connection::take_request() {
  const size_t end = input.find(request_end);
  if (stage != stage_t::request || end == std::string::npos)
    return std::nullopt;
  std::string head = input.substr(0, end);
  input.erase(0, end + request_end.size());
  return head;
}

std::optional<message_t> connection::take_message() {
  if ((stage != stage_t::open && stage != stage_t::closing) || !may_read || input.empty())
    return std::nullopt;
  std::string_view rest = input;
  auto message = reader.next(rest);
  input.erase(0, input.size() - rest.size());
  if (reader.failure() != 0) {
    close_with(reader.failure());
    finish();
    return std::nullopt;
  }
  if (message && message->kind == opcode_t::close) {
    if (stage == stage_t::open)
      queue(make_outgoing(opcode_t::close, message->payload), {});
    finish();
  }
  return message;
}

void connection::answer(std::string http_answer) {
  queue(make_plain_bytes(std::move(http_answer)), {});
  finish();
}

void connection::accept_upgrade(std::string http_answer) {
  queue(make_plain_bytes(std::move(http_answer)), {});
  stage = stage_t::open;
}

bool connection::send(std::shared_ptr<const outgoing_t> message, std::chrono::milliseconds delay) {
  if (!open())
    return !gone();
  if (!may_queue(queued_bytes, message->memory_bytes())) {
    stage = stage_t::gone;
    return false;
  }
  queue(std::move(message), delay);
  return true;
}

void connection::close_with(int code, std::chrono::milliseconds delay) {
  if (!open())
    return;
  queue(make_outgoing(opcode_t::close, close_payload(code)), delay);
  stage = stage_t::closing;
  deadline = service_clock::now() + delay + close_patience;
}

void connection::reset() {
  const linger at_once{1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  stage = stage_t::gone;
}

void connection::queue(std::shared_ptr<const outgoing_t> what, std::chrono::milliseconds delay) {
  queued_bytes += what->memory_bytes();
  output.push_back({std::move(what), service_clock::now() + delay});
}

void connection::finish() {
  if (gone())
    return;
  stage = stage_t::finishing;
  deadline = service_clock::now() + close_patience;
  input.clear();
}

// The other end may still be sending, and closing right away would take our last bytes from it.
void connection::stop_sending_when_done() {
  if (stage != stage_t::finishing || !output.empty() || end_announced)
    return;
  end_announced = true;
  shutdown(socket, SHUT_WR);
}

} // namespace vemk
