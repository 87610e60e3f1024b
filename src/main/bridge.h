/// The assembly of the bridge: both workers over the two queues that connect them.
#ifndef VEMK_MAIN_BRIDGE_H
#define VEMK_MAIN_BRIDGE_H

#include "config/websock_cfg.h"
#include "worker/message_queue.h"

namespace vemk {

/// Builds both workers, starts them and waits for their ends. In practice they never end: a signal
/// or one of the workers ends the process. The workers' run flags are the configuration's
/// `url_valid` and `bus_run_flag`. An exception in a construction leaves no thread running.
void run_bridge(const websock_cfg_t &cfg, const bool &bus_run_flag,
                message_queue_t &bus_to_ws_queue, message_queue_t &ws_to_bus_queue);

} // namespace vemk

#endif
