/// The log module "websock-worker", shared by the sources of the WebSocket worker.
#ifndef VEMK_WEBSOCK_WEBSOCK_LOG_H
#define VEMK_WEBSOCK_WEBSOCK_LOG_H

#include "log/log_module.h"

namespace vemk {

extern log_module_t websock_log_module;

} // namespace vemk

#endif
