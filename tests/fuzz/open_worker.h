/// A WebSocket worker with its insides open.
#ifndef VEMK_TESTS_FUZZ_OPEN_WORKER_H
#define VEMK_TESTS_FUZZ_OPEN_WORKER_H

#include "websock/websock_worker.h"

namespace vemk::fuzz {

class open_worker : public websock_worker {
public:
  using websock_worker::websock_worker;

  using websock_worker::handle_status_request;

  using websock_worker::connected;
  using websock_worker::protocol_callback;
  using websock_worker::running;
};

} // namespace vemk::fuzz

#endif
