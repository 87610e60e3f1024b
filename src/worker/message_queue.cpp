#include "worker/message_queue.h"

#include <utility>

namespace vemk {

namespace {

void do_nothing() {}

std::size_t length_of(const std::shared_ptr<buffer_info_t> &item) {
  return item ? item->length : 0;
}

/// Removes the front item into `item`. False when there is none.
bool pop_front(message_queue_t &queue, std::shared_ptr<buffer_info_t> &item) {
  const std::lock_guard<std::mutex> guard(queue.lock);
  if (queue.items.empty())
    return false;
  item = queue.items.front();
  queue.items.pop_front();
  queue.bytes -= length_of(item);
  return true;
}

} // namespace

message_queue_t::message_queue_t() : notify(do_nothing), bytes(0) {}

void message_queue_t::push(const std::shared_ptr<buffer_info_t> &item) {
  const std::lock_guard<std::mutex> guard(lock);
  items.push_back(item);
  bytes += length_of(item);
  if (notify)
    notify();
}

std::shared_ptr<buffer_info_t> message_queue_t::try_pop() {
  std::shared_ptr<buffer_info_t> item;
  pop_front(*this, item);
  return item;
}

bool message_queue_t::take(const std::function<void(std::shared_ptr<buffer_info_t>)> &handler) {
  std::shared_ptr<buffer_info_t> item;
  if (!pop_front(*this, item))
    return false;
  handler(item);
  return true;
}

void message_queue_t::set_notify(std::function<void()> callback) {
  const std::lock_guard<std::mutex> guard(lock);
  notify = std::move(callback);
}

void message_queue_t::reset_notify() {
  set_notify(do_nothing);
}

void message_queue_t::notify_consumer() {
  const std::lock_guard<std::mutex> guard(lock);
  if (notify)
    notify();
}

std::size_t message_queue_t::payload_bytes() {
  const std::lock_guard<std::mutex> guard(lock);
  return bytes;
}

} // namespace vemk
