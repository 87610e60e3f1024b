#include "websock/event_websock_worker.h"

#include <limits>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "websock/websock_log.h"
#include "worker/buffer_log.h"

namespace vemk {

namespace {

constexpr int batch_messages = 64;

// While an attempt or a close is under way. Old releases look at their time limits only when they
// are called.
constexpr std::int32_t unsettled_wait_ms = 500;

// Between two messages that are dropped, so that an outage does not cost more of them than by
// default.
constexpr useconds_t drop_pause_us = 50000;

/// Collects what is written into full packets, until this is called with 0.
void cork(lws *wsi, int value) {
  setsockopt(lws_get_socket_fd(wsi), IPPROTO_TCP, TCP_CORK, &value, sizeof value);
}

} // namespace

event_websock_worker::event_websock_worker(message_queue_t *from_bus, message_queue_t *to_bus,
                                           const char *server_host, const char *server_path,
                                           std::int32_t server_port, const bool *keep_running_flag,
                                           std::uint32_t first_delay, std::uint32_t largest_delay,
                                           bool only_whole_messages, queue_bound *from_bus_bound,
                                           queue_bound *to_bus_bound)
    : websock_worker(from_bus, to_bus, server_host, server_path, server_port, keep_running_flag,
                     first_delay, largest_delay, false, only_whole_messages),
      bus_to_ws_bound(from_bus_bound), ws_to_bus_bound(to_bus_bound), is_closing(false),
      is_receiving_held(false), waits_for_room(false) {}

bool event_websock_worker::init() {
  is_closing = false;
  is_receiving_held = false;
  const bool is_ready = websock_worker::init();
  if (!log_is_enabled(websock_log_module, log_category_debug))
    lws_set_log_level(0, log_hook);
  return is_ready;
}

bool event_websock_worker::run_once() {
  const std::int32_t wait_ms = prepare_wait();
  timers.expect_wait(wait_ms);
  service_for_at_most(context, wait_ms);
  release.send_rest(context);
  timers.run_expired();
  control_receiving();
  return false;
}

std::int32_t event_websock_worker::prepare_wait() {
  lws *const wsi = release.established();
  if (wsi == nullptr || is_closing)
    return unsettled_wait_ms;
  const auto ping_second = static_cast<std::int32_t>(last_ping.tv_sec + ping_interval_seconds);
  const std::int32_t wait_ms = timers.milliseconds_until(ping_second);
  const bool is_ping_due = wait_ms == 0;
  // Before 3.0, a request of another thread can get lost in one of this thread.
  if (is_ping_due || has_message())
    lws_callback_on_writable(wsi);
  // A ping that is due waits for the socket, and only the watchdog ends that.
  return is_ping_due ? timers.milliseconds_until(std::numeric_limits<std::int32_t>::max())
                     : wait_ms;
}

int event_websock_worker::lws_callback(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                                       std::size_t length) {
  if (reason == LWS_CALLBACK_GET_THREAD_ID)
    return lws_release::thread_number();
  if (reason == LWS_CALLBACK_WS_PEER_INITIATED_CLOSE)
    is_closing = true;
  return websock_worker::lws_callback(wsi, reason, user, in, length);
}

int event_websock_worker::process_client_writeable(lws *wsi, void *, void *) {
  ping_if_due(wsi);
  // The pong cannot be read.
  if (is_receiving_held && missed_pongs > 0) {
    missed_pongs = 0;
    lws_release::put_off_expiry(wsi);
  }
  if (send_batch(wsi))
    lws_callback_on_writable(wsi);
  return 0;
}

bool event_websock_worker::send_batch(lws *wsi) {
  bool has_failed = false;
  bool is_corked = false;
  int taken = 0;
  const std::function<void(std::shared_ptr<buffer_info_t>)> send =
      [&](const std::shared_ptr<buffer_info_t> &message) {
        if (keep_own_message(message))
          return;
        if (taken > 0 && !is_corked) {
          is_corked = true;
          cork(wsi, 1);
        }
        has_failed = lws_send(wsi, message->data, message->length, LWS_WRITE_TEXT) < 0;
      };
  bool has_more = true;
  // What the library holds back when the connection is cut is lost.
  while (has_more && taken < batch_messages && !has_failed && lws_partial_buffered(wsi) == 0) {
    has_more = bus_to_ws_queue->take(send);
    bus_to_ws_bound->after_take();
    ++taken;
  }
  if (is_corked)
    cork(wsi, 0);
  return has_more;
}

void event_websock_worker::control_receiving() {
  lws *const wsi = release.established();
  if (wsi == nullptr)
    return;
  waits_for_room.store(true, std::memory_order_relaxed);
  const bool is_full = ws_to_bus_bound->stops_producer();
  waits_for_room.store(is_full, std::memory_order_relaxed);
  if (is_full == is_receiving_held)
    return;
  is_receiving_held = is_full;
  lws_rx_flow_control(wsi, is_full ? 0 : 1);
  // Before 2.4 this takes effect after the connection's next callback.
  lws_callback_on_writable(wsi);
}

void event_websock_worker::request_writeable(lws *wsi) {
  // While more than one message waits, a writeable callback has been requested already.
  if (bus_to_ws_queue->items.size() <= 1 || waits_for_room.load(std::memory_order_relaxed))
    websock_worker::request_writeable(wsi);
}

void event_websock_worker::pass_delay(std::int32_t seconds, const std::function<void()> &take_one) {
  bus_to_ws_queue->set_notify([this] { wake.signal(); });
  timers.delay_with_callback(
      seconds,
      [&] {
        take_one();
        bus_to_ws_bound->after_take();
      },
      [this](std::int32_t milliseconds) {
        if (has_message()) {
          usleep(drop_pause_us);
          return;
        }
        timers.expect_wait(milliseconds);
        wake.wait(milliseconds);
      });
}

void event_websock_worker::dump(const buffer_info_t &message) const {
  if (log_is_enabled(buffer_log_module, log_category_debug))
    message.dump();
}

bool event_websock_worker::has_message() {
  const std::lock_guard<std::mutex> guard(bus_to_ws_queue->lock);
  return !bus_to_ws_queue->items.empty();
}

} // namespace vemk
