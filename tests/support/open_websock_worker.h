/// A WebSocket worker of either pacing with its insides open to a test.
#ifndef VEMK_TESTS_SUPPORT_OPEN_WEBSOCK_WORKER_H
#define VEMK_TESTS_SUPPORT_OPEN_WEBSOCK_WORKER_H

#include "websock/event_websock_worker.h"

namespace vemk {

template<typename worker_t>
class opened : public worker_t {
public:
  using worker_t::worker_t;

  using worker_t::_connect;
  using worker_t::from_queue_send;
  using worker_t::handle_status_request;
  using worker_t::lws_send;
  using worker_t::next_delay;
  using worker_t::ping_timeout;
  using worker_t::process_client_receive;
  using worker_t::queue_connected_status;
  using worker_t::queue_disconnected_status;
  using worker_t::request_writeable;
  using worker_t::wait_before_connect;

  using worker_t::alive;
  using worker_t::bus_to_ws_queue;
  using worker_t::closed;
  using worker_t::connect_info;
  using worker_t::connected;
  using worker_t::context;
  using worker_t::creation_info;
  using worker_t::current_delay;
  using worker_t::host;
  using worker_t::initial_delay;
  using worker_t::last_ping;
  using worker_t::log_hook;
  using worker_t::log_name;
  using worker_t::max_delay;
  using worker_t::missed_pongs;
  using worker_t::mode;
  using worker_t::path;
  using worker_t::ping_timeout_handler;
  using worker_t::port;
  using worker_t::protocol_callback;
  using worker_t::protocols;
  using worker_t::running;
  using worker_t::rx_buffer;
  using worker_t::skip_lws_binding;
  using worker_t::timers;
  using worker_t::wake_pipe;
  using worker_t::whole_messages;
  using worker_t::ws_to_bus_queue;
};

using open_websock_worker = opened<websock_worker>;
using open_event_worker = opened<event_websock_worker>;

} // namespace vemk

#endif
