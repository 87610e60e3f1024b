#include "main/startup.h"

#include <cstdlib>
#include <ctime>
#include <sys/prctl.h>

#include "config/websock_cfg.h"
#include "log/log_module.h"
#include "main/bridge.h"
#include "main/pid_file.h"
#include "worker/message_queue.h"
#include "zandor_log.h"

namespace vemk {

namespace {

log_module_t log_module;
const log_module_setup module_setup(log_module, "vemk-main");

} // namespace

int run_daemon(int argc, char **argv) {
  init_zandor_logrotate("vemk");
  // For the spread of the reconnect delays.
  srand(static_cast<unsigned>(time(nullptr)));
  prctl(PR_SET_NAME, "main");

  websock_cfg_t cfg{};
  parse_command_line(cfg, argc, argv);
  message_queue_t bus_to_ws_queue;
  message_queue_t ws_to_bus_queue;
  log_set_level(log_module, g_log_level);
  const bool bus_run_flag = cfg.url_valid;

  replace_earlier_instance();
  if (cfg.url_valid)
    run_bridge(cfg, bus_run_flag, bus_to_ws_queue, ws_to_bus_queue);
  return 0;
}

} // namespace vemk
