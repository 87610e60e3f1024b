#include "main/bridge.h"

#include "ipc/ipc_worker.h"
#include "websock/websock_worker.h"

namespace vemk {

namespace {

constexpr std::int32_t bus_module_id = 2;

} // namespace

void run_bridge(const websock_cfg_t &cfg, const bool &bus_run_flag,
                message_queue_t &bus_to_ws_queue, message_queue_t &ws_to_bus_queue) {
  websock_worker websock(&bus_to_ws_queue, &ws_to_bus_queue, cfg.host, cfg.path, cfg.port,
                         &cfg.url_valid, cfg.initial_connection_delay, cfg.max_connection_delay,
                         false, cfg.whole_messages);
  ipc_worker ipc(&bus_to_ws_queue, &ws_to_bus_queue, bus_module_id, &bus_run_flag);
  ipc.start();
  websock.start();
  ipc.join();
  websock.join();
}

} // namespace vemk
