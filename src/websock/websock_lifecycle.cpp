#include "websock/websock_worker.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

#include "websock/websock_log.h"
#include "json/status_messages.h"

namespace vemk {

log_module_t websock_log_module;

namespace {

const log_module_setup module_setup(websock_log_module, "websock-worker");

constexpr char worker_name[] = "websock-roaming";
constexpr int service_limit_ms = 500;

// Every level of the library from LLL_ERR to LLL_LATENCY but LLL_NOTICE.
constexpr int library_log_levels = 0x3FB;

// The library's callback carries no object, so the one worker is bound here.
std::function<int(lws *, lws_callback_reasons, void *, void *, std::size_t)> g_lws_callback;

int forward_callback(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                     std::size_t length) {
  return g_lws_callback(wsi, reason, user, in, length);
}

void log_library_line(int level, const char *line) {
  log_debug(websock_log_module, "portal->libwebsocket-debug> %d: %s", level, line);
}

} // namespace

websock_worker::websock_worker(message_queue_t *from_bus, message_queue_t *to_bus,
                               std::string server_host, std::string server_path,
                               std::int32_t server_port, const bool *keep_running_flag,
                               std::uint32_t first_delay, std::uint32_t largest_delay,
                               bool without_lws_binding, bool only_whole_messages)
    : abstract_worker(keep_running_flag, worker_name), skip_lws_binding(without_lws_binding),
      log_name(nullptr), bus_to_ws_queue(from_bus), ws_to_bus_queue(to_bus), mode(3),
      context(nullptr), protocol_callback(nullptr), log_hook(nullptr), host(std::move(server_host)),
      path(std::move(server_path)), port(server_port), wake_pipe{-1, -1},
      rx_buffer(std::make_shared<buffer_info_t>()), protocols{}, creation_info{}, connect_info{},
      missed_pongs(0), alive(false), connected(false), closed(false), last_ping{},
      ping_timeout_handler([this] { ping_timeout(); }), current_delay(first_delay),
      initial_delay(first_delay), max_delay(largest_delay), whole_messages(only_whole_messages) {
  log_set_level(websock_log_module, g_log_level);
  if (!skip_lws_binding) {
    log_name = worker_name;
    protocol_callback = forward_callback;
    log_hook = log_library_line;
    // The function object holds a capture this small itself. So a callback that still runs while
    // another thread ends the process finds it.
    g_lws_callback = [this](lws *wsi, lws_callback_reasons reason, void *user, void *in,
                            std::size_t length) {
      return lws_callback(wsi, reason, user, in, length);
    };
  }
  ignore_proxy_environment();
  if (pipe(wake_pipe) < 0)
    perror("pipe");
}

websock_worker::~websock_worker() {
  stop();
  for (const int end : wake_pipe) {
    if (end >= 0)
      close(end);
  }
}

bool websock_worker::init() {
  queue_disconnected_status();
  wait_before_connect();
  return _connect();
}

bool websock_worker::run_once() {
  service_for_at_most(context, service_limit_ms);
  release.send_rest(context);
  timers.run_expired();
  return true;
}

void websock_worker::deinit() {
  stop();
}

bool websock_worker::keep_running(const bool *flag) {
  return *flag && alive;
}

void websock_worker::stop() {
  timers.cancel_timers(attempt_timer_id);
  log_debug(websock_log_module, "%s->Stopping\n", log_name);
  bus_to_ws_queue->reset_notify();
  queue_disconnected_status();
  connected.store(false, std::memory_order_relaxed);
  timers.cancel_timers(watchdog_timer_id);
  if (context != nullptr) {
    lws_context_destroy(context);
    context = nullptr;
  }
  // The library may deliver a piece of the old connection for as long as the context lives.
  if (whole_messages)
    rx_buffer = std::make_shared<buffer_info_t>();
}

bool websock_worker::_connect() {
  creation_info = lws_context_creation_info{};
  connect_info = lws_client_connect_info{};
  protocols[0] = lws_protocols{};
  protocols[0].name = log_name;
  protocols[0].callback = protocol_callback;
  protocols[0].user = this;
  lift_send_limit(protocols[0]);
  protocols[1] = lws_protocols{};
  alive = true;

  creation_info.port = CONTEXT_PORT_NO_LISTEN;
  creation_info.protocols = protocols;
  creation_info.gid = static_cast<decltype(creation_info.gid)>(-1);
  creation_info.uid = static_cast<decltype(creation_info.uid)>(-1);
  wait_for_slow_servers(creation_info);
  lws_set_log_level(library_log_levels, log_hook);
  context = create_context(creation_info);
  if (context == nullptr) {
    log_error(websock_log_module, "%s->Creating libwebsocket context failed\n", log_name);
    return false;
  }

  connect_info.context = context;
  connect_info.address = host.c_str();
  connect_info.port = port;
  connect_info.path = path.c_str();
  connect_info.host = host.c_str();
  connect_info.origin = host.c_str();
  connect_info.protocol = worker_name;
  connect_info.ietf_version_or_minus_one = -1;
  release.refuse_redirects(connect_info);
  log_debug(websock_log_module, "%s-> %s: Try to establish connect with server %s:%d%s\n", log_name,
            "_connect", host.c_str(), port, path.c_str());
  timers.add_timer([this] { process_client_connection_error(); }, attempt_timer_id,
                   attempt_limit_seconds);
  if (lws_client_connect_via_info(&connect_info) == nullptr) {
    lws_context_destroy(context);
    context = nullptr;
    return false;
  }
  log_debug(websock_log_module, "%s->Connected\n", log_name);
  return true;
}

std::uint32_t websock_worker::next_delay() {
  const auto previous = static_cast<std::int32_t>(current_delay);
  current_delay = previous == 0 ? 2 : 2 * current_delay;
  if (max_delay < current_delay)
    current_delay = max_delay;

  const std::int32_t low = previous == 0 ? 1 : previous / 2;
  const std::int32_t span = previous == 0 ? 2 : previous;
  // The sums wrap round as unsigned numbers, for delays that a configuration should not have.
  const std::uint32_t high = static_cast<std::uint32_t>(low) + static_cast<std::uint32_t>(span);
  log_debug(websock_log_module, "Generate delay into [%u;%u) range\n", static_cast<unsigned>(low),
            static_cast<unsigned>(high));
  // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread draws numbers
  return static_cast<std::uint32_t>(rand() % span) + static_cast<std::uint32_t>(low);
}

void websock_worker::wait_before_connect() {
  const auto delay = static_cast<std::int32_t>(next_delay());
  log_debug(websock_log_module, "Delay before connection: %d sec\n", static_cast<int>(delay));
  pass_delay(delay, [this] {
    bus_to_ws_queue->take(
        [this](const std::shared_ptr<buffer_info_t> &message) { keep_own_message(message); });
  });
}

void websock_worker::pass_delay(std::int32_t seconds, const std::function<void()> &take_one) {
  timers.delay_with_callback(seconds, take_one);
}

bool websock_worker::keep_own_message(const std::shared_ptr<buffer_info_t> &message) {
  if (!message)
    return true;
  log_debug(websock_log_module, "%s->From queue\n", log_name);
  dump(*message);
  return handle_status_request(*message);
}

void websock_worker::queue_connected_status() {
  queue_status_message(*ws_to_bus_queue, true);
}

void websock_worker::queue_disconnected_status() {
  queue_status_message(*ws_to_bus_queue, false);
}

bool websock_worker::handle_status_request(const buffer_info_t &message) {
  switch (classify_bus_message(message)) {
  case bus_message_kind::foreign:
    return false;
  case bus_message_kind::internal:
    return true;
  case bus_message_kind::status_request:
    if (connected.load(std::memory_order_relaxed))
      queue_connected_status();
    else
      queue_disconnected_status();
    return true;
  }
  return true;
}

} // namespace vemk
