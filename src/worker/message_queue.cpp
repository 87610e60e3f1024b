#include "worker/message_queue.h"

#include <utility>

namespace vemk {

namespace {

void do_nothing() {}

} // namespace

message_queue_t::message_queue_t() : notify(do_nothing) {}

void message_queue_t::push(const std::shared_ptr<buffer_info_t> &item) {
  const std::lock_guard<std::mutex> guard(lock);
  items.push_back(item);
  if (notify)
    notify();
}

std::shared_ptr<buffer_info_t> message_queue_t::try_pop() {
  const std::lock_guard<std::mutex> guard(lock);
  if (items.empty())
    return nullptr;
  std::shared_ptr<buffer_info_t> item = items.front();
  items.pop_front();
  return item;
}

bool message_queue_t::take(const std::function<void(std::shared_ptr<buffer_info_t>)> &handler) {
  const std::shared_ptr<buffer_info_t> item = try_pop();
  if (!item)
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

} // namespace vemk
