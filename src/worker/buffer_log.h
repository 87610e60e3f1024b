/// The log module "buffer-info", shared by the sources of buffer_info_t.
#ifndef VEMK_WORKER_BUFFER_LOG_H
#define VEMK_WORKER_BUFFER_LOG_H

#include "log/log_module.h"

namespace vemk {

extern log_module_t buffer_log_module;

} // namespace vemk

#endif
