#include "main/bridge.h"

#include "ipc/event_ipc_worker.h"
#include "websock/event_websock_worker.h"

namespace vemk {

namespace {

constexpr std::int32_t bus_module_id = 2;

void run_workers(abstract_worker &ipc, abstract_worker &websock) {
  ipc.start();
  websock.start();
  ipc.join();
  websock.join();
}

} // namespace

void run_bridge(const websock_cfg_t &cfg, const bool &bus_run_flag,
                message_queue_t &bus_to_ws_queue, message_queue_t &ws_to_bus_queue) {
  if (cfg.event_pacing) {
    queue_bound bus_to_ws_bound(&bus_to_ws_queue, &ws_to_bus_queue);
    queue_bound ws_to_bus_bound(&ws_to_bus_queue, &bus_to_ws_queue);
    event_websock_worker websock(&bus_to_ws_queue, &ws_to_bus_queue, cfg.host, cfg.path, cfg.port,
                                 &cfg.url_valid, cfg.initial_connection_delay,
                                 cfg.max_connection_delay, cfg.whole_messages, &bus_to_ws_bound,
                                 &ws_to_bus_bound);
    event_ipc_worker ipc(&bus_to_ws_queue, &ws_to_bus_queue, bus_module_id, &bus_run_flag,
                         &bus_to_ws_bound, &ws_to_bus_bound);
    run_workers(ipc, websock);
    return;
  }
  websock_worker websock(&bus_to_ws_queue, &ws_to_bus_queue, cfg.host, cfg.path, cfg.port,
                         &cfg.url_valid, cfg.initial_connection_delay, cfg.max_connection_delay,
                         false, cfg.whole_messages);
  ipc_worker ipc(&bus_to_ws_queue, &ws_to_bus_queue, bus_module_id, &bus_run_flag);
  run_workers(ipc, websock);
}

} // namespace vemk
