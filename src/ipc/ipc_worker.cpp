#include "ipc/ipc_worker.h"

#include <cstdlib>
#include <cstring>

#include "log/log_module.h"
#include "module_bus.h"

namespace vemk {

namespace {

log_module_t log_module;
const log_module_setup module_setup(log_module, "ipc-worker");

// Where a bus record holds its payload's length and the payload itself.
constexpr std::size_t length_offset = 4;
constexpr std::size_t payload_offset = 13;

constexpr int every_listener = 3;

} // namespace

ipc_worker::ipc_worker(message_queue_t *from_bus, message_queue_t *to_bus, std::int32_t module,
                       const bool *keep_running_flag)
    : abstract_worker(keep_running_flag, "ipc"), bus_to_ws_queue(from_bus), ws_to_bus_queue(to_bus),
      module_id(module) {
  log_set_level(log_module, g_log_level);
}

ipc_worker::~ipc_worker() {
  leave_bus();
}

bool ipc_worker::init() {
  InitTrace("VEMk");
  SetTraceOpt(0, 4, 0);
  const signed char list[] = {-2, 0};
  InitLibParams(module_id, list, sizeof list);
  SetModuleLoop(0);
  if (GetModuleLoop() != 0)
    return false;
  ModulePeerStart();
  return true;
}

bool ipc_worker::run_once() {
  const std::unique_ptr<void, decltype(&free)> message(GetMsgFromQueueNoWait(), &free);
  if (message) {
    forward_bus_message(message.get());
    return false;
  }
  return !ws_to_bus_queue->take(
      [this](const std::shared_ptr<buffer_info_t> &buffer) { send_to_bus(buffer); });
}

void ipc_worker::deinit() {
  leave_bus();
}

bool ipc_worker::keep_running(const bool *flag) {
  return *flag && GetModuleLoop() != 0;
}

void ipc_worker::send_to_bus(const buffer_info_t &buffer) {
  if (buffer.data != nullptr && buffer.length != 0)
    MsgSend(buffer.data, every_listener, buffer.length);
}

void ipc_worker::send_to_bus(const std::shared_ptr<buffer_info_t> &buffer) {
  if (buffer)
    send_to_bus(*buffer);
}

void ipc_worker::forward_bus_message(const void *message) {
  const auto *const bytes = static_cast<const std::uint8_t *>(message);
  std::uint32_t length = 0;
  memcpy(&length, bytes + length_offset, sizeof length);

  const auto buffer = std::make_shared<buffer_info_t>();
  if (buffer->append(bytes + payload_offset, length) != nullptr)
    bus_to_ws_queue->push(buffer);
}

void ipc_worker::leave_bus() {
  ModulePeerStop();
  SetModuleLoop(0);
  FreeLibParams();
}

} // namespace vemk
