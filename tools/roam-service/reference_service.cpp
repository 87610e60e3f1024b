#include "reference_service.h"

#include "http.h"
#include "listener.h"

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace vemk {
namespace {

constexpr size_t socket_chunk_bytes = 64 * 1024;
constexpr lws_usec_t longest_wait_us = 200 * LWS_US_PER_MS;

void log_library_line(int, const char *line) {
  std::fprintf(stderr, "roam-service: libwebsockets: %s", line);
}

std::string header(lws *library, lws_token_indexes token) {
  std::string value(static_cast<size_t>(lws_hdr_total_length(library, token)) + 1, '\0');
  const int length = lws_hdr_copy(library, value.data(), static_cast<int>(value.size()), token);
  value.resize(length > 0 ? static_cast<size_t>(length) : 0);
  return value;
}

/// Tells a header that is not there from an empty one.
std::optional<std::string> find_header(lws *library, lws_token_indexes token) {
  std::string value = header(library, token);
  std::string first(value.size() + 1, '\0');
  const int length =
      lws_hdr_copy_fragment(library, first.data(), static_cast<int>(first.size()), token, 0);
  return length < 0 ? std::nullopt : std::optional(std::move(value));
}

} // namespace

reference_service::reference_service(const service_options_t &service_options,
                                     message_handler on_message)
    : options(service_options),
      message_received(std::move(on_message)), protocols{{daemon_subprotocol, library_callback, 0,
                                                          socket_chunk_bytes, 0, nullptr, 0},
                                                         {}} {
  // The library only says that it could not listen; this tries first, and says why not.
  listener(options.bind_address, options.port).close();
  lws_set_log_level(LLL_ERR | LLL_WARN, log_library_line);
  lws_context_creation_info info{};
  info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
  if (options.bind_address.find(':') == std::string::npos)
    info.options |= LWS_SERVER_OPTION_DISABLE_IPV6;
  info.port = options.port;
  info.iface = options.bind_address.c_str();
  info.protocols = protocols;
  info.user = this;
  info.gid = static_cast<decltype(info.gid)>(-1);
  info.uid = static_cast<decltype(info.uid)>(-1);
  context = lws_create_context(&info);
  vhost = context ? lws_create_vhost(context, &info) : nullptr;
  if (!vhost) {
    if (context)
      lws_context_destroy(context);
    throw std::runtime_error("cannot listen on " +
                             host_and_port(options.bind_address, options.port) +
                             "; give another --bind or --port");
  }
}

reference_service::~reference_service() {
  lws_context_destroy(context);
}

std::string reference_service::url() const {
  return "ws://" + host_and_port(options.bind_address, lws_get_vhost_listen_port(vhost)) +
         options.path;
}

void reference_service::serve(const std::function<bool()> &stop_wanted, wake_handler on_wake) {
  woken = std::move(on_wake);
  while (!stop_wanted())
    serve_once();
  take_leave();
  woken = nullptr;
}

void reference_service::wake() {
  lws_cancel_service(context);
}

void reference_service::broadcast(std::string_view text) {
  if (connections.empty()) {
    std::fprintf(stderr, "roam-service: no daemon is connected; the line went nowhere\n");
    return;
  }
  const auto message = make_outgoing_message(text, LWS_WRITE_TEXT);
  for (auto &[library, unused] : connections)
    if (!queue_or_drop(library, message))
      lws_set_timeout(library, PENDING_TIMEOUT_CLOSE_SEND, LWS_TO_KILL_ASYNC);
}

int reference_service::library_callback(lws *library, lws_callback_reasons reason, void *user,
                                        void *data, size_t length) {
  auto *service = static_cast<reference_service *>(lws_context_user(lws_get_context(library)));
  switch (reason) {
  case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
    return service->process_network_connection(
        *static_cast<const lws_filter_network_conn_args *>(user));
  case LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED:
    return service->process_client_instantiated(library);
  case LWS_CALLBACK_WSI_DESTROY:
    return service->process_destroyed(library);
  case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
    return service->process_upgrade_request(library);
  case LWS_CALLBACK_ESTABLISHED:
    return service->process_established(library);
  case LWS_CALLBACK_RECEIVE:
    return service->process_receive(library, {static_cast<const char *>(data), length});
  case LWS_CALLBACK_SERVER_WRITEABLE:
    return service->process_writeable(library);
  case LWS_CALLBACK_CLOSED:
    return service->process_closed(library);
  case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
    if (service->woken)
      service->woken();
    return 0;
  default:
    return lws_callback_http_dummy(library, reason, user, data, length);
  }
}

int reference_service::process_network_connection(
    const lws_filter_network_conn_args &accepted) const {
  return addresses.has_room_for(peer_of(accepted.accept_fd)) ? 0 : 1;
}

int reference_service::process_client_instantiated(lws *library) {
  const auto [visitor, is_new] = visitors.emplace(library, peer_of(lws_get_socket_fd(library)));
  if (is_new)
    addresses.add(visitor->second);
  return 0;
}

int reference_service::process_destroyed(lws *library) {
  const auto visitor = visitors.find(library);
  if (visitor == visitors.end())
    return 0;
  addresses.remove(visitor->second);
  visitors.erase(visitor);
  return 0;
}

int reference_service::process_upgrade_request(lws *library) const {
  if (is_from_elsewhere(find_header(library, WSI_TOKEN_ORIGIN), header(library, WSI_TOKEN_HOST)))
    return refuse(library, elsewhere_status, elsewhere_reason);
  if (header(library, WSI_TOKEN_GET_URI) != options.path)
    return refuse(library, "404 Not Found", "only path " + options.path + " is served");
  if (!list_contains(header(library, WSI_TOKEN_PROTOCOL), daemon_subprotocol))
    return refuse(library, "400 Bad Request",
                  std::string("only subprotocol ") + daemon_subprotocol + " is served");
  return 0;
}

int reference_service::refuse(lws *library, const std::string &status,
                              const std::string &reason) const {
  std::fprintf(stderr, "roam-service: refused a connection: %s\n", reason.c_str());
  // The library's own status page is HTTP/1.0 at this point, which WebSocket clients do not take.
  const auto answer =
      make_outgoing_message("HTTP/1.1 " + status +
                                "\r\nConnection: close\r\nContent-Type: text/plain"
                                "\r\nContent-Length: " +
                                std::to_string(reason.size() + 1) + "\r\n\r\n" + reason + "\n",
                            LWS_WRITE_HTTP_FINAL);
  lws_write(library, answer->block.data() + LWS_PRE, answer->length, answer->kind);
  return 1;
}

int reference_service::process_established(lws *library) {
  char peer[64] = "an unknown address";
  lws_get_peer_simple(library, peer, sizeof peer);
  connections.emplace(std::piecewise_construct, std::forward_as_tuple(library),
                      std::forward_as_tuple(library, peer));
  std::fprintf(stderr, "roam-service: daemon connected from %s\n", peer);
  return 0;
}

int reference_service::process_receive(lws *library, std::string_view piece) {
  const auto found = connections.find(library);
  if (found == connections.end())
    return -1;
  if (!found->second.accept_piece(piece)) {
    std::fprintf(stderr, "roam-service: the daemon's message is too long; dropping the daemon\n");
    return -1;
  }
  const auto message = found->second.take_completed();
  if (!message)
    return 0;
  const auto kind = lws_frame_is_binary(library) ? LWS_WRITE_BINARY : LWS_WRITE_TEXT;
  message_received(*message);
  return !options.echo || queue_or_drop(library, make_outgoing_message(*message, kind)) ? 0 : -1;
}

int reference_service::process_writeable(lws *library) {
  if (leaving) {
    lws_close_reason(library, LWS_CLOSE_STATUS_GOINGAWAY, nullptr, 0);
    return -1;
  }
  const auto found = connections.find(library);
  return found != connections.end() && found->second.send_next() ? 0 : -1;
}

int reference_service::process_closed(lws *library) {
  connections.erase(library);
  std::fprintf(stderr, "roam-service: daemon gone\n");
  return 0;
}

bool reference_service::queue_or_drop(lws *library,
                                      const std::shared_ptr<outgoing_message_t> &message) {
  const auto found = connections.find(library);
  if (found == connections.end())
    return false;
  if (found->second.queue(message))
    return true;
  std::fprintf(stderr,
               "roam-service: the daemon at %s does not read what it is sent; dropping it\n",
               found->second.peer().c_str());
  return false;
}

void reference_service::serve_once() {
  // The library would otherwise wait until one of its own timers is due.
  lws_sorted_usec_list_t limit{};
  lws_sul_schedule(
      context, 0, &limit, [](lws_sorted_usec_list_t *) {}, longest_wait_us);
  lws_service(context, 0);
  lws_sul_schedule(context, 0, &limit, nullptr, LWS_SET_TIMER_USEC_CANCEL);
}

void reference_service::take_leave() {
  leaving = true;
  for (auto &[library, unused] : connections)
    lws_callback_on_writable(library);
  const auto deadline = std::chrono::steady_clock::now() + leave_patience;
  while (!connections.empty() && std::chrono::steady_clock::now() < deadline)
    serve_once();
}

} // namespace vemk
