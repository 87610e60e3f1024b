#include "ipc/event_ipc_worker.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>

#include "module_bus.h"

namespace vemk {

namespace {

constexpr int batch_messages = 64;

// With a descriptor of the bus there is nothing to look for between its events. This bounds what
// one missed event could cost.
constexpr std::int32_t longest_wait_ms = 60000;

constexpr std::int32_t longest_poll_ms = 100;

// An answer mostly comes within this many milliseconds.
constexpr std::int32_t short_polls = 30;

} // namespace

event_ipc_worker::event_ipc_worker(message_queue_t *from_bus, message_queue_t *to_bus,
                                   std::int32_t module, const bool *keep_running_flag,
                                   queue_bound *from_bus_bound, queue_bound *to_bus_bound)
    : ipc_worker(from_bus, to_bus, module, keep_running_flag), bus_to_ws_bound(from_bus_bound),
      ws_to_bus_bound(to_bus_bound), bus_descriptor(-1), idle_waits(0), is_held_back(false) {
  // A queue that holds more has not been read to its end, so this worker is awake.
  ws_to_bus_queue->set_notify([this] {
    if (ws_to_bus_queue->items.size() <= 1)
      wake.signal();
  });
}

event_ipc_worker::~event_ipc_worker() {
  ws_to_bus_queue->reset_notify();
}

bool event_ipc_worker::init() {
  const bool is_ready = ipc_worker::init();
  bus_descriptor = GetMsgDescriptor != nullptr ? GetMsgDescriptor() : -1;
  return is_ready;
}

bool event_ipc_worker::run_once() {
  const bool has_taken = take_from_bus();
  const bool has_sent = send_queued_to_bus();
  if (!has_taken && !has_sent)
    return true;
  idle_waits = 0;
  return false;
}

bool event_ipc_worker::take_from_bus() {
  for (int taken = 0; taken < batch_messages; ++taken) {
    is_held_back = bus_to_ws_bound->stops_producer();
    if (is_held_back)
      return taken > 0;
    const std::unique_ptr<void, decltype(&free)> message(GetMsgFromQueueNoWait(), &free);
    if (!message)
      return taken > 0;
    forward_bus_message(message.get());
  }
  return true;
}

bool event_ipc_worker::send_queued_to_bus() {
  const std::function<void(std::shared_ptr<buffer_info_t>)> send =
      [this](const std::shared_ptr<buffer_info_t> &buffer) { send_to_bus(buffer); };
  for (int sent = 0; sent < batch_messages; ++sent) {
    if (!ws_to_bus_queue->take(send))
      return sent > 0;
    ws_to_bus_bound->after_take();
  }
  return true;
}

void event_ipc_worker::pause_before_next_step() {
  if (is_held_back)
    wake.wait(longest_poll_ms);
  else if (bus_descriptor >= 0 && idle_waits < short_polls)
    idle_waits = wake.wait(longest_wait_ms, bus_descriptor) ? idle_waits + 1 : 0;
  else
    wait_for_poll();
}

void event_ipc_worker::wait_for_poll() {
  constexpr std::int32_t most_doublings = 7;
  const std::int32_t doublings = std::max(idle_waits - short_polls + 1, 0);
  wake.wait(std::min(1 << doublings, longest_poll_ms));
  if (doublings < most_doublings)
    ++idle_waits;
  else if (bus_descriptor >= 0)
    idle_waits = 0;
}

} // namespace vemk
