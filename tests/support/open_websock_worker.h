/// A WebSocket worker with its insides open to a test.
#ifndef VEMK_TESTS_SUPPORT_OPEN_WEBSOCK_WORKER_H
#define VEMK_TESTS_SUPPORT_OPEN_WEBSOCK_WORKER_H

#include "websock/websock_worker.h"

namespace vemk {

class open_websock_worker : public websock_worker {
public:
  using websock_worker::websock_worker;

  using websock_worker::_connect;
  using websock_worker::from_queue_send;
  using websock_worker::handle_status_request;
  using websock_worker::lws_send;
  using websock_worker::next_delay;
  using websock_worker::ping_timeout;
  using websock_worker::process_client_receive;
  using websock_worker::queue_connected_status;
  using websock_worker::queue_disconnected_status;
  using websock_worker::request_writeable;
  using websock_worker::wait_before_connect;

  using websock_worker::alive;
  using websock_worker::bus_to_ws_queue;
  using websock_worker::closed;
  using websock_worker::connect_info;
  using websock_worker::connected;
  using websock_worker::context;
  using websock_worker::creation_info;
  using websock_worker::current_delay;
  using websock_worker::host;
  using websock_worker::initial_delay;
  using websock_worker::last_ping;
  using websock_worker::log_hook;
  using websock_worker::log_name;
  using websock_worker::max_delay;
  using websock_worker::missed_pongs;
  using websock_worker::mode;
  using websock_worker::path;
  using websock_worker::ping_timeout_handler;
  using websock_worker::port;
  using websock_worker::protocol_callback;
  using websock_worker::protocols;
  using websock_worker::running;
  using websock_worker::rx_buffer;
  using websock_worker::skip_lws_binding;
  using websock_worker::timers;
  using websock_worker::wake_pipe;
  using websock_worker::whole_messages;
  using websock_worker::ws_to_bus_queue;
};

} // namespace vemk

#endif
