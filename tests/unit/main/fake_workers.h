/// The workers of both pacings, in place of the real ones: they record what happens to them and
/// start no thread.
#ifndef VEMK_TESTS_UNIT_MAIN_FAKE_WORKERS_H
#define VEMK_TESTS_UNIT_MAIN_FAKE_WORKERS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "worker/message_queue.h"

namespace vemk::fake_workers {

/// The bounded queue of each bound, and the queue that its producer consumes.
using bounds_t = std::vector<std::pair<message_queue_t *, message_queue_t *>>;

struct websock_arguments_t {
  message_queue_t *from_bus;
  message_queue_t *to_bus;
  std::string host;
  std::string path;
  std::int32_t port;
  const bool *run_flag;
  bool run_flag_value;
  std::uint32_t first_delay;
  std::uint32_t largest_delay;
  bool without_lws_binding;
  bool only_whole_messages;
  /// Of the event-driven worker.
  bounds_t bounds;
};

struct ipc_arguments_t {
  message_queue_t *from_bus;
  message_queue_t *to_bus;
  std::int32_t module_id;
  const bool *run_flag;
  bool run_flag_value;
  bounds_t bounds;
};

/// Both constructions succeed.
void reset();

void let_websock_construction_throw();
void let_ipc_construction_throw();

/// What the workers were constructed with last.
websock_arguments_t websock_arguments();
ipc_arguments_t ipc_arguments();

} // namespace vemk::fake_workers

#endif
