#include "fakes/fake_lws.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

// The library's own types, as this stand-in needs them.
struct lws_context {
  std::size_t number;
  lws_callback_function *callback;
  bool is_alive;
};

struct lws {
  std::size_t number;
  lws_context *context;
  bool is_alive;
};

namespace {

using namespace vemk::fake_lws;

#if LWS_LIBRARY_VERSION_NUMBER >= 3000000
using creation_argument = const lws_context_creation_info *;
using connect_argument = const lws_client_connect_info *;
#else
using creation_argument = lws_context_creation_info *;
using connect_argument = lws_client_connect_info *;
#endif

constexpr int empty_ping_result = 6;

struct state_t {
  // Addresses stay valid, so that a use after the end is recorded and does not crash the test.
  std::deque<lws_context> contexts;
  std::deque<lws> connections;
  log_hook current_log_hook = nullptr;
  std::vector<const void *> timers;
  bool without_payloads = false;
  std::size_t last_frame_length = 0;
  bool fail_context = false;
  bool fail_connection = false;
  std::deque<int> write_results;
  bool calls_back_for_locks = false;
  int socket = -1;
  bool is_rest_held_back = false;
  std::size_t remaining = 0;
  bool is_final = true;
  std::deque<std::function<void()>> service_actions;
  std::function<void()> destroy_action;
};

std::recursive_mutex state_lock;
state_t state;

using guard = vemk::fake_call_guard<std::recursive_mutex>;

std::string name_of(const lws_context *context) {
  if (context == nullptr)
    return "null";
  return (context->is_alive ? "context" : "dead context") + std::to_string(context->number);
}

std::string name_of(const lws *wsi) {
  if (wsi == nullptr)
    return "null";
  return (wsi->is_alive ? "wsi" : "dead wsi") + std::to_string(wsi->number);
}

template<typename record_t>
bool is_zero(const record_t &data) {
  const auto *const bytes = reinterpret_cast<const unsigned char *>(&data);
  return std::all_of(bytes, bytes + sizeof data, [](unsigned char byte) { return byte == 0; });
}

template<typename record_t>
record_t zeroed() {
  record_t empty;
  memset(static_cast<void *>(&empty), 0, sizeof empty);
  return empty;
}

/// Compares all bytes; both records come from zeroed memory, so padding is zero as well.
template<typename record_t>
bool all_bytes_equal(const record_t &left, const record_t &right) {
  return memcmp(static_cast<const void *>(&left), static_cast<const void *>(&right), sizeof left) ==
         0;
}

creation_info_t copy_of(const lws_context_creation_info &info) {
  auto expected = zeroed<lws_context_creation_info>();
  expected.port = info.port;
  expected.gid = info.gid;
  expected.uid = info.uid;
  expected.protocols = info.protocols;
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
  const unsigned timeouts[] = {info.timeout_secs, info.connect_timeout_secs};
  expected.timeout_secs = timeouts[0];
  expected.connect_timeout_secs = timeouts[1];
#else
  const unsigned timeouts[] = {0, 0};
#endif
  return {info.port,
          static_cast<int>(info.gid),
          static_cast<int>(info.uid),
          timeouts[0],
          timeouts[1],
          all_bytes_equal(info, expected),
          info.protocols[0].name == nullptr ? "" : info.protocols[0].name,
          info.protocols[0],
          is_zero(info.protocols[1])};
}

connect_info_t copy_of(const lws_client_connect_info &info) {
  auto expected = zeroed<lws_client_connect_info>();
  expected.context = info.context;
  expected.address = info.address;
  expected.port = info.port;
  expected.ssl_connection = info.ssl_connection;
  expected.path = info.path;
  expected.host = info.host;
  expected.origin = info.origin;
  expected.protocol = info.protocol;
  expected.ietf_version_or_minus_one = info.ietf_version_or_minus_one;
  return {info.context,
          info.address,
          info.port,
          info.ssl_connection,
          info.path,
          info.host,
          info.origin,
          info.protocol,
          info.ietf_version_or_minus_one,
          all_bytes_equal(info, expected)};
}

int call_protocol(lws_callback_reasons reason, lws *wsi, void *in, std::size_t length) {
  lws_callback_function *callback = nullptr;
  {
    const guard locked(state_lock);
    callback = state.contexts.back().callback;
  }
  return callback(wsi, reason, nullptr, in, length);
}

} // namespace

extern "C" {

void lws_set_log_level(int level, log_hook hook) {
  const guard locked(state_lock);
  char text[16];
  snprintf(text, sizeof text, "%x", static_cast<unsigned>(level));
  calls.add(std::string("lws_set_log_level ") + text);
  state.current_log_hook = hook;
}

lws_context *lws_create_context(creation_argument info) {
  const guard locked(state_lock);
  calls.add("lws_create_context");
  creation_infos.add(copy_of(*info));
  if (std::exchange(state.fail_context, false))
    return nullptr;
  state.contexts.push_back({state.contexts.size() + 1, info->protocols[0].callback, true});
  return &state.contexts.back();
}

void lws_context_destroy(lws_context *context) {
  std::function<void()> action;
  {
    const guard locked(state_lock);
    calls.add("lws_context_destroy " + name_of(context));
    action = state.destroy_action;
  }
  if (action)
    action();
  const guard locked(state_lock);
  context->is_alive = false;
  for (lws &wsi : state.connections) {
    if (wsi.context == context)
      wsi.is_alive = false;
  }
}

lws *lws_client_connect_via_info(connect_argument info) {
  const guard locked(state_lock);
  calls.add("lws_client_connect_via_info " + name_of(info->context));
  connect_infos.add(copy_of(*info));
  if (std::exchange(state.fail_connection, false))
    return nullptr;
  state.connections.push_back({state.connections.size() + 1, info->context, true});
  return &state.connections.back();
}

int lws_service(lws_context *context, int limit_ms) {
  std::function<void()> action;
  {
    const guard locked(state_lock);
    calls.add("lws_service " + name_of(context) + " " + std::to_string(limit_ms));
    if (!state.service_actions.empty()) {
      action = std::move(state.service_actions.front());
      state.service_actions.pop_front();
    }
  }
  if (action)
    action();
  return 0;
}

int lws_callback_on_writable(lws *wsi) {
  {
    const guard locked(state_lock);
    calls.add("lws_callback_on_writable " + name_of(wsi));
    if (!state.calls_back_for_locks)
      return 1;
  }
  for (const auto reason : {LWS_CALLBACK_LOCK_POLL, LWS_CALLBACK_CHANGE_MODE_POLL_FD,
                            LWS_CALLBACK_GET_THREAD_ID, LWS_CALLBACK_UNLOCK_POLL}) {
    if (call_protocol(reason, wsi, nullptr, 0) != 0)
      calls.add("refused " + std::to_string(reason));
  }
  return 1;
}

lws_sockfd_type lws_get_socket_fd(lws *) {
  const guard locked(state_lock);
  return state.socket;
}

int lws_partial_buffered(lws *) {
  const guard locked(state_lock);
  return state.is_rest_held_back ? 1 : 0;
}

int lws_rx_flow_control(lws *wsi, int enable) {
  const guard locked(state_lock);
  calls.add("lws_rx_flow_control " + name_of(wsi) + " " + std::to_string(enable));
  return 0;
}

#if LWS_LIBRARY_VERSION_NUMBER >= 4000000

void lws_validity_confirmed(lws *wsi) {
  const guard locked(state_lock);
  calls.add("lws_validity_confirmed " + name_of(wsi));
}

#endif

int lws_write(lws *wsi, unsigned char *payload, std::size_t length, lws_write_protocol type) {
  const guard locked(state_lock);
  calls.add("lws_write " + name_of(wsi) + " " + std::to_string(length) + " " +
            std::to_string(type));
  unsigned char *const headroom = payload - LWS_PRE;
  const bool was_zero =
      std::all_of(headroom, payload, [](unsigned char byte) { return byte == 0; });
  memset(headroom, 0xEE, LWS_PRE);
  state.last_frame_length = length;
  const std::size_t kept = state.without_payloads ? 0 : length;
  frames.add(
      {std::string(reinterpret_cast<const char *>(payload), kept), type, was_zero, is_corked()});
  if (!state.write_results.empty()) {
    const int result = state.write_results.front();
    state.write_results.pop_front();
    return result;
  }
  return type == LWS_WRITE_PING && length == 0 ? empty_ping_result : static_cast<int>(length);
}

std::size_t lws_remaining_packet_payload(lws *) {
  const guard locked(state_lock);
  return state.remaining;
}

int lws_is_final_fragment(lws *) {
  const guard locked(state_lock);
  return state.is_final ? 1 : 0;
}

#if LWS_LIBRARY_VERSION_NUMBER >= 3000000

void lws_cancel_service(lws_context *context) {
  const guard locked(state_lock);
  calls.add("lws_cancel_service " + name_of(context));
}

#endif

#if LWS_LIBRARY_VERSION_NUMBER >= 3002000

void lws_sul_schedule(lws_context *context, int thread_index, lws_sorted_usec_list_t *timer,
                      sul_cb_t callback, lws_usec_t delay_us) {
  const guard locked(state_lock);
  auto &timers = state.timers;
  timers.erase(std::remove(timers.begin(), timers.end(), timer), timers.end());
  std::string delay = "cancel";
  if (delay_us != LWS_SET_TIMER_USEC_CANCEL) {
    delay = std::to_string(delay_us) + (callback == nullptr ? " without callback" : "");
    timers.push_back(timer);
  }
  calls.add("lws_sul_schedule " + name_of(context) + " " + std::to_string(thread_index) + " " +
            delay);
}

#endif
}

namespace vemk::fake_lws {

record_of<std::string> calls;
record_of<frame_t> frames;
record_of<creation_info_t> creation_infos;
record_of<connect_info_t> connect_infos;

std::vector<int> release_reasons() {
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
  return {LWS_CALLBACK_CLOSED_CLIENT_HTTP, LWS_CALLBACK_EVENT_WAIT_CANCELLED,
          LWS_CALLBACK_CLIENT_CLOSED};
#elif LWS_LIBRARY_VERSION_NUMBER >= 3000000
  return {LWS_CALLBACK_EVENT_WAIT_CANCELLED, LWS_CALLBACK_CLIENT_CLOSED};
#else
  return {};
#endif
}

void reset() {
  const guard locked(state_lock);
  state = state_t();
  calls.clear();
  frames.clear();
  creation_infos.clear();
  connect_infos.clear();
}

log_hook current_log_hook() {
  const guard locked(state_lock);
  return state.current_log_hook;
}

std::size_t pending_timers() {
  const guard locked(state_lock);
  return state.timers.size();
}

void keep_no_payloads() {
  const guard locked(state_lock);
  state.without_payloads = true;
}

std::size_t last_frame_length() {
  const guard locked(state_lock);
  return state.last_frame_length;
}

void fail_next_context() {
  const guard locked(state_lock);
  state.fail_context = true;
}

void fail_next_connection() {
  const guard locked(state_lock);
  state.fail_connection = true;
}

void script_write_results(const std::vector<int> &results) {
  const guard locked(state_lock);
  state.write_results.assign(results.begin(), results.end());
}

void set_piece(std::size_t remaining, bool is_final) {
  const guard locked(state_lock);
  state.remaining = remaining;
  state.is_final = is_final;
}

lws *connection() {
  const guard locked(state_lock);
  return state.connections.empty() ? nullptr : &state.connections.back();
}

lws *connection(std::size_t number) {
  const guard locked(state_lock);
  return &state.connections.at(number - 1);
}

void kill_connection(lws *wsi) {
  const guard locked(state_lock);
  wsi->is_alive = false;
}

void call_back_for_locks() {
  const guard locked(state_lock);
  state.calls_back_for_locks = true;
}

bool is_corked() {
  const guard locked(state_lock);
  int value = 0;
  socklen_t length = sizeof value;
  return getsockopt(state.socket, IPPROTO_TCP, TCP_CORK, &value, &length) == 0 && value != 0;
}

void set_socket(int descriptor) {
  const guard locked(state_lock);
  state.socket = descriptor;
}

void hold_back_rest(bool is_held_back) {
  const guard locked(state_lock);
  state.is_rest_held_back = is_held_back;
}

int deliver(lws_callback_reasons reason, lws *wsi, std::size_t length) {
  return call_protocol(reason, wsi, nullptr, length);
}

int deliver_piece(const std::string &bytes, lws *wsi) {
  std::string copy;
  {
    const own_memory of_the_library;
    copy = bytes;
  }
  return call_protocol(LWS_CALLBACK_CLIENT_RECEIVE, wsi, copy.data(), copy.size());
}

int deliver_null_piece(std::size_t length) {
  return call_protocol(LWS_CALLBACK_CLIENT_RECEIVE, connection(), nullptr, length);
}

void script_service(std::function<void()> action) {
  const guard locked(state_lock);
  state.service_actions.push_back(std::move(action));
}

void on_destroy(std::function<void()> action) {
  const guard locked(state_lock);
  state.destroy_action = std::move(action);
}

} // namespace vemk::fake_lws
