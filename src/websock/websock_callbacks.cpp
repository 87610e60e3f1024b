#include "websock/websock_worker.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "websock/websock_log.h"

namespace vemk {

namespace {

// Headroom that the library needs in front of every payload. Some releases define less.
constexpr std::size_t headroom = 16;
static_assert(LWS_PRE <= headroom, "the library needs more headroom in front of a payload");

// Frames up to this size, headroom included, are assembled on the stack, larger ones on the heap.
// Threads of small C libraries have 128 KiB of stack or less, and no message from the bus may
// overrun it.
constexpr std::size_t max_stack_frame = 16 * 1024;

/// A zeroed area for one frame: the headroom, then a copy of the payload.
class frame_area {
public:
  frame_area(const void *data, std::size_t length) : on_heap(nullptr), start(nullptr) {
    if (length <= sizeof on_stack - headroom) {
      start = on_stack;
      memset(on_stack, 0, headroom + length);
    } else if (length <= std::numeric_limits<std::size_t>::max() - headroom) {
      start = on_heap = static_cast<unsigned char *>(calloc(1, headroom + length));
    }
    if (start != nullptr && data != nullptr)
      memcpy(payload(), data, length);
  }

  frame_area(const frame_area &) = delete;
  frame_area &operator=(const frame_area &) = delete;

  ~frame_area() { free(on_heap); }

  bool is_valid() const { return start != nullptr; }

  unsigned char *payload() { return start + headroom; }

private:
  unsigned char on_stack[max_stack_frame];
  unsigned char *on_heap;
  unsigned char *start;
};

// The numbers of the trace lines. They are part of the log's texts and stay as they are.
constexpr int protocol_destroy_trace = 31;
constexpr int connection_error_trace = 41;
constexpr int established_trace = 58;
constexpr int closed_trace = 76;
constexpr int receive_trace = 87;
constexpr int receive_pong_trace = 119;

// The dispatcher knows reasons below this one.
constexpr int first_unknown_reason = 29;

} // namespace

int websock_worker::lws_callback(lws *wsi, lws_callback_reasons library_reason, void *user,
                                 void *in, std::size_t length) {
  if (lws_release::is_requesting())
    return 0;
  check_missed_pongs();
  const int reason = release.observe(wsi, library_reason, length);
  if (reason >= first_unknown_reason)
    return 0;
  switch (reason) {
  case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
    process_client_connection_error();
    break;
  case LWS_CALLBACK_CLIENT_ESTABLISHED:
    process_client_established(wsi, user, in);
    break;
  case LWS_CALLBACK_CLOSED:
  case LWS_CALLBACK_CLOSED_HTTP:
    process_closed();
    break;
  case LWS_CALLBACK_CLIENT_RECEIVE:
    process_client_receive(wsi, user, in, length);
    break;
  case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
    process_client_receive_pong();
    break;
  case LWS_CALLBACK_CLIENT_WRITEABLE:
    process_client_writeable(wsi, user, in);
    break;
  case LWS_CALLBACK_PROTOCOL_DESTROY:
    process_protocol_destroy();
    break;
  default:
    break;
  }
  return 0;
}

int websock_worker::process_protocol_destroy() {
  trace("process_protocol_destroy", protocol_destroy_trace);
  closed = true;
  return 0;
}

int websock_worker::process_client_connection_error() {
  trace("process_client_connection_error", connection_error_trace);
  closed = true;
  alive = false;
  return 0;
}

int websock_worker::process_client_established(lws *wsi, void *, void *) {
  trace("process_client_established", established_trace);
  connected.store(true, std::memory_order_relaxed);
  timers.cancel_timers(attempt_timer_id);
  bus_to_ws_queue->set_notify([this, wsi] { request_writeable(wsi); });
  current_delay = initial_delay;
  log_debug(websock_log_module, "Connection established - reset connection delay\n");
  queue_connected_status();
  clock_gettime(CLOCK_MONOTONIC, &last_ping);
  lws_callback_on_writable(wsi);
  arm_watchdog();
  return 0;
}

int websock_worker::process_closed() {
  trace("process_closed", closed_trace);
  closed = true;
  alive = false;
  return 0;
}

int websock_worker::process_client_receive(lws *wsi, void *, void *in, std::size_t length) {
  constexpr char handler[] = "process_client_receive";
  trace(handler, receive_trace);
  const auto piece_length = static_cast<std::uint32_t>(length);
  const std::size_t remaining = lws_remaining_packet_payload(wsi);
  if (remaining != 0 || !lws_is_final_fragment(wsi)) {
    log_debug(websock_log_module, "%s->%s: Get incomplete packet, remaining len %d\n", log_name,
              handler, static_cast<int>(remaining));
    rx_buffer->append(in, piece_length);
    return 0;
  }

  const bool is_empty = length == 0 || in == nullptr;
  if (is_empty && !(whole_messages && rx_buffer->length > 0))
    return -1;
  if (!is_empty && rx_buffer->append(in, piece_length) == nullptr) {
    log_error(websock_log_module, "%s->%s: can't receive message\n", log_name, handler);
    rx_buffer = std::make_shared<buffer_info_t>();
    return -1;
  }
  log_debug(websock_log_module, "%s->%s: Recieve final msg len %d from websocket\n", log_name,
            handler, static_cast<int>(rx_buffer->length));
  log_debug(websock_log_module, "%s->Send to Queue\n", log_name);
  dump(*rx_buffer);
  ws_to_bus_queue->push(rx_buffer);
  rx_buffer = std::make_shared<buffer_info_t>();
  return 0;
}

int websock_worker::process_client_receive_pong() {
  trace("process_client_receive_pong", receive_pong_trace);
  missed_pongs = 0;
  return 0;
}

int websock_worker::process_client_writeable(lws *wsi, void *, void *) {
  ping_if_due(wsi);
  bus_to_ws_queue->take([this, wsi](const std::shared_ptr<buffer_info_t> &message) {
    from_queue_send(wsi, message);
  });
  lws_callback_on_writable(wsi);
  return 0;
}

void websock_worker::from_queue_send(lws *wsi, const std::shared_ptr<buffer_info_t> &message) {
  if (!keep_own_message(message))
    lws_send(wsi, message->data, message->length, LWS_WRITE_TEXT);
}

int websock_worker::lws_send(lws *wsi, const void *data, std::size_t length,
                             lws_write_protocol type) {
  constexpr char operation[] = "lws_send";
  frame_area frame(data, length);
  const int result = frame.is_valid() ? lws_write(wsi, frame.payload(), length, type) : -1;
  if (result < 0)
    log_error(websock_log_module, "%s->%s:Can't send msg type [%d] to websocket\n", log_name,
              operation, static_cast<int>(type));
  else
    log_info(websock_log_module, "%s->%s:Send msg type [%d] len [%d/%d]  to websocket\n", log_name,
             operation, static_cast<int>(type), result, static_cast<int>(length));
  return result;
}

void websock_worker::request_writeable(lws *wsi) {
  if (connected.load(std::memory_order_relaxed))
    release.request(context, wsi);
}

void websock_worker::dump(const buffer_info_t &message) const {
  message.dump();
}

void websock_worker::trace(const char *handler, int number) const {
  log_debug(websock_log_module, "%s->%s:%d\n", log_name, handler, number);
}

} // namespace vemk
