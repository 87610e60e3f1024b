#include "websock/lws_release.h"

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vemk {

void ignore_proxy_environment() {
  // NOLINTBEGIN(concurrency-mt-unsafe): called before a thread is started
  unsetenv("http_proxy");
  unsetenv("socks_proxy");
  // NOLINTEND(concurrency-mt-unsafe)
}

// Time limits.

#if LWS_LIBRARY_VERSION_NUMBER >= 4001000

void wait_for_slow_servers(lws_context_creation_info &info) {
  // For the connection to one address, and for the answer to the handshake.
  constexpr unsigned patience_seconds = 20;
  info.timeout_secs = patience_seconds;
  // This limit ends the whole attempt. The limit above leads to the host's next address, so it has
  // to expire first. With this one at its default, which is 20 seconds too, it would not.
  info.connect_timeout_secs = patience_seconds + 1;
}

#else

void wait_for_slow_servers(lws_context_creation_info &) {}

#endif

#if LWS_LIBRARY_VERSION_NUMBER >= 3002000

void service_for_at_most(lws_context *context, int limit_ms) {
  // The library ignores the argument; a timer ends the wait.
  lws_sorted_usec_list_t limit{};
  lws_sul_schedule(
      context, 0, &limit, [](lws_sorted_usec_list_t *) {}, limit_ms * LWS_US_PER_MS);
  lws_service(context, limit_ms);
  lws_sul_schedule(context, 0, &limit, nullptr, LWS_SET_TIMER_USEC_CANCEL);
}

#else

void service_for_at_most(lws_context *context, int limit_ms) {
  lws_service(context, limit_ms);
}

#endif

// The context.

#if LWS_LIBRARY_VERSION_NUMBER < 2004000 || LWS_LIBRARY_VERSION_NUMBER >= 4003000

lws_context *create_context(lws_context_creation_info &info) {
  // As many as the library opens: a pipe and the source of random numbers.
  int missing = 3;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  for (int descriptor = 0; missing > 0; ++descriptor) {
    if (static_cast<rlim_t>(descriptor) >= limit.rlim_cur)
      return nullptr;
    if (fcntl(descriptor, F_GETFD) < 0)
      --missing;
  }
  return lws_create_context(&info);
}

#else

lws_context *create_context(lws_context_creation_info &info) {
  return lws_create_context(&info);
}

#endif

// The speed of sending.

#if LWS_LIBRARY_VERSION_NUMBER >= 2003000

void lift_send_limit(lws_protocols &protocol) {
  // More than a socket takes at once.
  constexpr std::size_t max_send_size = 16 * 1024 * 1024;
  protocol.tx_packet_size = max_send_size;
}

void lws_release::send_rest(lws_context *) {}

#else

void lift_send_limit(lws_protocols &) {}

void lws_release::send_rest(lws_context *context) {
  // More than a socket takes at once, in the pieces in which the library writes.
  constexpr int max_pieces = 4096;
  for (int i = 0; i < max_pieces && connection != nullptr; ++i) {
    // Nothing is received out of turn: a step delivers one piece, as it does without a message to
    // send.
    pollfd socket{lws_get_socket_fd(connection), POLLIN | POLLOUT, 0};
    if (!lws_partial_buffered(connection) || poll(&socket, 1, 0) != 1 || socket.revents != POLLOUT)
      return;
    lws_service(context, 0);
  }
}

#endif

// Redirects, and what else came with 4.0.

#if LWS_LIBRARY_VERSION_NUMBER >= 4000000

void lws_release::put_off_expiry(lws *wsi) {
  lws_validity_confirmed(wsi);
}

void lws_release::refuse_redirects(lws_client_connect_info &info) {
  info.ssl_connection |= LCCSCF_HTTP_NO_FOLLOW_REDIRECT;
}

void lws_release::handle_socket(lws *, lws_callback_reasons) {}

#else

namespace {

/// These releases limit the socket's buffer to 4112 bytes, and no more would leave in one step.
void lift_send_buffer(lws *wsi) {
  // The kernel takes it for the most that it allows.
  constexpr int max_send_buffer = 4 * 1024 * 1024;
  setsockopt(lws_get_socket_fd(wsi), SOL_SOCKET, SO_SNDBUF, &max_send_buffer,
             sizeof max_send_buffer);
}

} // namespace

void lws_release::put_off_expiry(lws *) {}

void lws_release::refuse_redirects(lws_client_connect_info &) {
  has_asked = false;
  if (no_socket < 0)
    no_socket = open("/dev/null", O_RDWR | O_CLOEXEC);
}

void lws_release::handle_socket(lws *wsi, lws_callback_reasons reason) {
  if (reason == LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER)
    has_asked = true;
  else if (reason == LWS_CALLBACK_CLIENT_ESTABLISHED)
    lift_send_buffer(wsi);
  else if (reason == LWS_CALLBACK_WSI_CREATE && has_asked)
    // These releases try one address only. So this socket, which is about to be connected, is for
    // the place that the answer named. The connect fails.
    dup2(no_socket, lws_get_socket_fd(wsi));
}

#endif

// The end of attempts and connections, and requests from another thread.

int lws_release::observe(lws *wsi, lws_callback_reasons reason, std::size_t length) {
  handle_socket(wsi, reason);
  return handle_connection(wsi, reason, length);
}

lws *lws_release::established() const {
  return connection;
}

#if LWS_LIBRARY_VERSION_NUMBER >= 3000000

void lws_release::request(lws_context *context, lws *) {
  lws_cancel_service(context);
}

int lws_release::thread_number() {
  return 0;
}

bool lws_release::is_requesting() {
  return false;
}

int lws_release::handle_connection(lws *wsi, lws_callback_reasons reason, std::size_t) {
  switch (reason) {
  case LWS_CALLBACK_CLIENT_ESTABLISHED:
    connection = wsi;
    return reason;
  case LWS_CALLBACK_CLIENT_CLOSED:
    connection = nullptr;
    return LWS_CALLBACK_CLOSED;
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
  case LWS_CALLBACK_CLOSED_CLIENT_HTTP:
    // The library's only report of a server that accepts the connection and never answers the
    // handshake. It does not come for an attempt that was reported as an error.
    return LWS_CALLBACK_CLIENT_CONNECTION_ERROR;
#endif
  case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
  case LWS_CALLBACK_WSI_DESTROY:
    if (wsi == connection)
      connection = nullptr;
    return reason;
  case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
    if (connection != nullptr)
      lws_callback_on_writable(connection);
    return reason;
  default:
    return reason;
  }
}

#else

namespace {

// Whether this thread is inside request().
thread_local bool requesting = false;

} // namespace

void lws_release::request(lws_context *, lws *wsi) {
  // Also held during the call: the service thread waits in forget() before the library takes the
  // socket off its list and frees the connection.
  const std::lock_guard<std::mutex> guard(in_use);
  if (wsi != connection)
    return;
  requesting = true;
  lws_callback_on_writable(wsi);
  requesting = false;
}

bool lws_release::is_requesting() {
  return requesting;
}

int lws_release::thread_number() {
  return static_cast<int>(syscall(SYS_gettid));
}

int lws_release::handle_connection(lws *wsi, lws_callback_reasons reason, std::size_t length) {
  switch (reason) {
  case LWS_CALLBACK_CLIENT_ESTABLISHED: {
    const std::lock_guard<std::mutex> guard(in_use);
    connection = wsi;
    return reason;
  }
  case LWS_CALLBACK_LOCK_POLL:
    // With 1 before a socket enters or leaves the library's list, with 0 before its events change.
    if (length == 1)
      forget(wsi);
    return reason;
  case LWS_CALLBACK_CLOSED:
  case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
  case LWS_CALLBACK_WSI_DESTROY:
    forget(wsi);
    return reason;
  default:
    return reason;
  }
}

void lws_release::forget(const lws *wsi) {
  const std::lock_guard<std::mutex> guard(in_use);
  if (wsi == connection)
    connection = nullptr;
}

#endif

} // namespace vemk
