#include "websock/websock_worker.h"

#include "websock/websock_log.h"

namespace vemk {

namespace {

constexpr std::int32_t missed_pong_limit = 3;
constexpr std::int32_t watchdog_seconds = 60;
constexpr int ping_timeout_trace = 197;

} // namespace

void websock_worker::check_missed_pongs() {
  if (missed_pongs < missed_pong_limit)
    return;
  log_debug(websock_log_module, "%s->There are no %d pong answer in a row from server\n", log_name,
            static_cast<int>(missed_pongs));
  missed_pongs = 0;
  alive = false;
}

void websock_worker::ping_if_due(lws *wsi) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const time_t elapsed = now.tv_sec - last_ping.tv_sec;
  if (!connected.load(std::memory_order_relaxed) || elapsed < ping_interval_seconds)
    return;
  log_debug(websock_log_module, "%s->%s: It's time to ping websocket server, expired [%u]\n",
            log_name, "process_client_writeable", static_cast<unsigned>(elapsed));
  last_ping = now;
  if (lws_send(wsi, nullptr, ping_length, LWS_WRITE_PING) > 0)
    ++missed_pongs;
  lws_callback_on_writable(wsi);
  arm_watchdog();
}

void websock_worker::arm_watchdog() {
  timers.cancel_timers(watchdog_timer_id);
  timers.add_timer(ping_timeout_handler, watchdog_timer_id, watchdog_seconds);
}

void websock_worker::ping_timeout() {
  trace("ping_timeout", ping_timeout_trace);
  running = false;
}

} // namespace vemk
