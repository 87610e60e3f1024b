#include "fuzz/websock_model.h"

#include <algorithm>
#include <utility>

#include "fakes/fake_lws.h"
#include "fuzz/expect.h"
#include "fuzz/status_rule.h"

namespace vemk::fuzz {

namespace {

constexpr std::uint32_t error = 1;
constexpr std::uint32_t info = 4;
constexpr std::uint32_t debugging = 8;

constexpr int text_frame = 0;
constexpr int ping_frame = 5;
constexpr int empty_ping_result = 6;

std::string name_of(std::size_t wsi) {
  return wsi == 0 ? "null" : "wsi" + std::to_string(wsi);
}

std::string context_name(std::size_t context) {
  return context == 0 ? "null" : "context" + std::to_string(context);
}

} // namespace

void expect_same(const worker_view_t &model, const worker_view_t &worker) {
  expect_equal("the library calls", model.library_calls, worker.library_calls);
  expect_equal("what goes to the bus", model.to_bus, worker.to_bus);
  expect_equal("the log", model.logged, worker.logged);
  expect_equal("the receive buffer", model.received, worker.received);
  expect_equal("the messages waiting", model.waiting, worker.waiting);
  expect_equal("alive", model.alive, worker.alive);
  expect_equal("connected", model.connected, worker.connected);
  expect_equal("closed", model.closed, worker.closed);
  expect_equal("running", model.running, worker.running);
  expect_equal("the context", model.has_context, worker.has_context);
  expect_equal("keep_running", model.keeps_running, worker.keeps_running);
  expect_equal("missed_pongs", model.missed_pongs, worker.missed_pongs);
  expect_equal("current_delay", model.current_delay, worker.current_delay);
  expect_equal("last_ping", model.last_ping, worker.last_ping);
}

websock_model::websock_model(std::uint32_t first_delay, std::uint32_t largest_delay,
                             std::uint32_t level, bool only_whole_messages)
    : initial_delay(first_delay), max_delay(largest_delay), log_level(level),
      whole_messages(only_whole_messages), last_good(now()) {
  view.current_delay = first_delay;
}

void websock_model::script_readings(const std::vector<std::int64_t> &seconds) {
  readings.assign(seconds.begin(), seconds.end());
}

void websock_model::script_write_results(const std::vector<int> &results) {
  write_results.assign(results.begin(), results.end());
}

void websock_model::push_from_bus(const std::string &message) {
  from_bus.push_back(message);
  if (!notified_connection || !view.connected)
    return;
  if (fake_lws::wakes_by_cancelling)
    call("lws_cancel_service " + context_name(context));
  else
    call("lws_callback_on_writable " + name_of(*notified_connection));
}

worker_view_t websock_model::take_view() {
  view.has_context = context != 0;
  view.keeps_running = run_flag && view.alive;
  view.waiting = from_bus.size();
  worker_view_t taken = view;
  view.to_bus.clear();
  view.library_calls.clear();
  view.logged.clear();
  return taken;
}

void websock_model::log(std::uint32_t category, const std::string &module,
                        const std::string &message) {
  if ((log_level & category) != 0)
    view.logged.push_back(module + "> " + message);
}

void websock_model::debug(const std::string &message) {
  log(debugging, "websock-worker", message);
}

std::int64_t websock_model::read_clock() {
  if (readings.empty())
    return now();
  const std::int64_t reading = readings.front();
  readings.pop_front();
  return reading;
}

std::int64_t websock_model::check_clock() {
  for (int attempt = 0; attempt <= 10; ++attempt) {
    const std::int64_t reading = read_clock();
    if (reading >= last_good && reading - last_good <= 10) {
      last_good = reading;
      return reading;
    }
    log(debugging, "timers",
        "time_monotonic: Time error, need restart, expired [" + std::to_string(reading) + "] [" +
            std::to_string(last_good) + "] cnt " + std::to_string(attempt) + "\n");
  }
  throw process_end{-1};
}

// Connecting and stopping.

bool websock_model::init(connect_outcome outcome, int random) {
  view.to_bus.emplace_back(status_text(false));
  wait_before_connect(random);
  view.running = connect(outcome);
  return view.running;
}

std::uint32_t websock_model::next_delay(int random) {
  const auto previous = static_cast<int>(view.current_delay);
  view.current_delay = previous == 0 ? 2 : 2 * view.current_delay;
  view.current_delay = std::min(view.current_delay, max_delay);
  const int low = previous == 0 ? 1 : previous / 2;
  const int high = previous == 0 ? 3 : low + previous;
  const int span = high - low;
  debug("Generate delay into [" + std::to_string(low) + ";" + std::to_string(high) + ") range\n");
  return static_cast<std::uint32_t>(random % span + low);
}

void websock_model::wait_before_connect(int random) {
  const std::uint32_t delay = next_delay(random);
  debug("Delay before connection: " + std::to_string(delay) + " sec\n");
  const std::int64_t deadline = check_clock() + delay;
  int poll = 0;
  do {
    let_pass(50000);
    ++poll;
    for (auto [each, end] = arrivals.equal_range(poll); each != end; ++each)
      from_bus.push_back(each->second);
    take_message();
  } while (check_clock() < deadline);
  arrivals.clear();
}

bool websock_model::connect(connect_outcome outcome) {
  view.alive = true;
  call("lws_set_log_level 3fb");
  call("lws_create_context");
  if (outcome == connect_outcome::no_context) {
    log(error, "websock-worker", "websock-roaming->Creating libwebsocket context failed\n");
    return false;
  }
  context = ++contexts;
  debug("websock-roaming-> _connect: Try to establish connect with server "
        "roam.example:8080/roam\n");
  call("lws_client_connect_via_info " + context_name(context));
  if (outcome == connect_outcome::no_connection) {
    destroy_context();
    return false;
  }
  context_connection = ++connections;
  debug("websock-roaming->Connected\n");
  return true;
}

void websock_model::deinit() {
  debug("websock-roaming->Stopping\n");
  notified_connection.reset();
  view.to_bus.emplace_back(status_text(false));
  view.connected = false;
  watchdog_due.reset();
  if (context != 0)
    destroy_context();
  if (whole_messages)
    view.received.clear();
}

void websock_model::destroy_context() {
  call("lws_context_destroy " + context_name(context));
  const std::vector<int> reasons = std::move(destroy_reasons);
  destroy_reasons.clear();
  for (const int reason : reasons)
    call_back(reason, context_connection);
  if (context_connection != 0)
    call_back(LWS_CALLBACK_WSI_DESTROY, context_connection);
  context = 0;
  context_connection = 0;
}

void websock_model::run_once() {
  const std::string name = context_name(context);
  if (fake_lws::wakes_by_cancelling)
    call("lws_sul_schedule " + name + " 0 500000");
  call("lws_service " + name + " 500");
  if (fake_lws::wakes_by_cancelling)
    call("lws_sul_schedule " + name + " 0 cancel");

  const std::int64_t reading = check_clock();
  if (!watchdog_due || reading < *watchdog_due)
    return;
  watchdog_due.reset();
  debug("websock-roaming->ping_timeout:197\n");
  view.running = false;
}

// The library's callbacks.

void websock_model::call_back(int reason, std::size_t wsi) {
  check_pongs();
  switch (reason_of_release(reason, wsi)) {
  case 1:
    debug("websock-roaming->process_client_connection_error:41\n");
    view.closed = true;
    view.alive = false;
    break;
  case 3:
    established(wsi);
    break;
  case 4:
  case 5:
    debug("websock-roaming->process_closed:76\n");
    view.closed = true;
    view.alive = false;
    break;
  case 8:
    receive(current_piece);
    break;
  case 9:
    debug("websock-roaming->process_client_receive_pong:119\n");
    view.missed_pongs = 0;
    break;
  case 10:
    writeable(wsi);
    break;
  case 28:
    debug("websock-roaming->process_protocol_destroy:31\n");
    view.closed = true;
    break;
  default:
    break;
  }
}

void websock_model::check_pongs() {
  if (view.missed_pongs < 3)
    return;
  debug("websock-roaming->There are no " + std::to_string(view.missed_pongs) +
        " pong answer in a row from server\n");
  view.missed_pongs = 0;
  view.alive = false;
}

/// What the newer library calls differently, and what wakes its service thread.
int websock_model::reason_of_release(int reason, std::size_t wsi) {
  constexpr int closed_client_http = 45;
  constexpr int wait_cancelled = 71;
  constexpr int client_closed = 75;
  if (!fake_lws::wakes_by_cancelling)
    return reason;
  if (reason == LWS_CALLBACK_CLIENT_ESTABLISHED)
    known_connection = wsi;
  if (reason == client_closed)
    known_connection = 0;
  if ((reason == LWS_CALLBACK_CLIENT_CONNECTION_ERROR || reason == LWS_CALLBACK_WSI_DESTROY) &&
      known_connection == wsi)
    known_connection = 0;
  if (reason == wait_cancelled && known_connection != 0)
    call("lws_callback_on_writable " + name_of(known_connection));
  if (reason == client_closed)
    return LWS_CALLBACK_CLOSED;
  return reason == closed_client_http ? static_cast<int>(LWS_CALLBACK_CLIENT_CONNECTION_ERROR)
                                      : reason;
}

void websock_model::established(std::size_t wsi) {
  debug("websock-roaming->process_client_established:58\n");
  view.connected = true;
  notified_connection = wsi;
  view.current_delay = initial_delay;
  debug("Connection established - reset connection delay\n");
  push_status();
  view.last_ping = read_clock();
  call("lws_callback_on_writable " + name_of(wsi));
  arm_watchdog();
}

void websock_model::arm_watchdog() {
  watchdog_due.reset();
  watchdog_due = check_clock() + 60;
}

int websock_model::receive(const piece_t &piece) {
  debug("websock-roaming->process_client_receive:87\n");
  const bool has_memory = view.received.size() + piece.length + 1 < piece.memory_limit;
  if (piece.remaining != 0 || !piece.is_final) {
    debug("websock-roaming->process_client_receive: Get incomplete packet, remaining len " +
          std::to_string(piece.remaining) + "\n");
    if (has_memory)
      view.received += piece.bytes.value_or("");
    else
      log(error, "buffer-info", "append:95 Can't alloc memory\n");
    return 0;
  }
  const bool is_empty = piece.length == 0 || !piece.bytes;
  const bool is_delivered = !is_empty || (whole_messages && !view.received.empty());
  if (!is_delivered)
    return -1;
  if (!is_empty && !has_memory) {
    log(error, "buffer-info", "append:95 Can't alloc memory\n");
    log(error, "websock-worker",
        "websock-roaming->process_client_receive: can't receive message\n");
    view.received.clear();
    return -1;
  }
  view.received += is_empty ? "" : *piece.bytes;
  debug("websock-roaming->process_client_receive: Recieve final msg len " +
        std::to_string(view.received.size()) + " from websocket\n");
  debug("websock-roaming->Send to Queue\n");
  view.to_bus.push_back(view.received);
  view.received.clear();
  return 0;
}

void websock_model::writeable(std::size_t wsi) {
  ping_if_due(wsi);
  if (const auto message = take_message())
    send(wsi, *message, text_frame);
  call("lws_callback_on_writable " + name_of(wsi));
}

void websock_model::ping_if_due(std::size_t wsi) {
  const std::int64_t reading = read_clock();
  const std::int64_t elapsed = reading - view.last_ping;
  if (!view.connected || elapsed < 30)
    return;
  debug("websock-roaming->process_client_writeable: It's time to ping websocket server, expired [" +
        std::to_string(elapsed) + "]\n");
  view.last_ping = reading;
  if (send(wsi, "", ping_frame) > 0)
    ++view.missed_pongs;
  call("lws_callback_on_writable " + name_of(wsi));
  arm_watchdog();
}

std::optional<std::string> websock_model::take_message() {
  if (from_bus.empty())
    return std::nullopt;
  const std::string message = from_bus.front();
  from_bus.pop_front();
  debug("websock-roaming->From queue\n");
  const message_fate fate = fate_of(message);
  if (fate == message_fate::answered)
    push_status();
  if (fate != message_fate::forwarded)
    return std::nullopt;
  return message;
}

int websock_model::send(std::size_t wsi, const std::string &payload, int type) {
  call("lws_write " + name_of(wsi) + " " + std::to_string(payload.size()) + " " +
       std::to_string(type));
  frames.push_back({payload, type});
  int result = type == ping_frame ? empty_ping_result : static_cast<int>(payload.size());
  if (!write_results.empty()) {
    result = write_results.front();
    write_results.pop_front();
  }
  const std::string type_text = "[" + std::to_string(type) + "]";
  if (result < 0)
    log(error, "websock-worker",
        "websock-roaming->lws_send:Can't send msg type " + type_text + " to websocket\n");
  else
    log(info, "websock-worker",
        "websock-roaming->lws_send:Send msg type " + type_text + " len [" + std::to_string(result) +
            "/" + std::to_string(payload.size()) + "]  to websocket\n");
  return result;
}

void websock_model::push_status() {
  view.to_bus.emplace_back(status_text(view.connected));
}

} // namespace vemk::fuzz
