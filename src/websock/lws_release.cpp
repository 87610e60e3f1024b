#include "websock/lws_release.h"

#include <cstdlib>

namespace vemk {

void ignore_proxy_environment() {
  // NOLINTBEGIN(concurrency-mt-unsafe): called before a thread is started
  unsetenv("http_proxy");
  unsetenv("socks_proxy");
  // NOLINTEND(concurrency-mt-unsafe)
}

#if LWS_LIBRARY_VERSION_NUMBER >= 4001000

namespace {

// More than a socket takes at once.
constexpr std::size_t max_send_size = 16 * 1024 * 1024;

// For the connection to one address, and for the answer to the handshake.
constexpr unsigned patience_seconds = 20;

} // namespace

void wait_for_slow_servers(lws_context_creation_info &info) {
  info.timeout_secs = patience_seconds;
  // This limit ends the whole attempt. The limit above leads to the host's next address, so it has
  // to expire first. With this one at its default, which is 20 seconds too, it would not.
  info.connect_timeout_secs = patience_seconds + 1;
}

void lift_send_limit(lws_protocols &protocol) {
  protocol.tx_packet_size = max_send_size;
}

void refuse_redirects(lws_client_connect_info &info) {
  info.ssl_connection |= LCCSCF_HTTP_NO_FOLLOW_REDIRECT;
}

void service_for_at_most(lws_context *context, int limit_ms) {
  // The library ignores the argument; a timer ends the wait.
  lws_sorted_usec_list_t limit{};
  lws_sul_schedule(
      context, 0, &limit, [](lws_sorted_usec_list_t *) {}, limit_ms * LWS_US_PER_MS);
  lws_service(context, limit_ms);
  lws_sul_schedule(context, 0, &limit, nullptr, LWS_SET_TIMER_USEC_CANCEL);
}

void writeable_wakeup::request(lws_context *context, lws *) {
  lws_cancel_service(context);
}

int writeable_wakeup::observe(lws *wsi, lws_callback_reasons reason) {
  switch (reason) {
  case LWS_CALLBACK_CLIENT_ESTABLISHED:
    connection = wsi;
    return reason;
  case LWS_CALLBACK_CLIENT_CLOSED:
    connection = nullptr;
    return LWS_CALLBACK_CLOSED;
  case LWS_CALLBACK_CLOSED_CLIENT_HTTP:
    // The library's only report of a server that accepts the connection and never answers the
    // handshake. It does not come for an attempt that was reported as an error.
    return LWS_CALLBACK_CLIENT_CONNECTION_ERROR;
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

#elif LWS_LIBRARY_VERSION_NUMBER < 2001000

void wait_for_slow_servers(lws_context_creation_info &) {}

void lift_send_limit(lws_protocols &) {}

void refuse_redirects(lws_client_connect_info &) {}

void service_for_at_most(lws_context *context, int limit_ms) {
  lws_service(context, limit_ms);
}

void writeable_wakeup::request(lws_context *, lws *wsi) {
  lws_callback_on_writable(wsi);
}

int writeable_wakeup::observe(lws *, lws_callback_reasons reason) {
  return reason;
}

#else
#error "The supported releases of libwebsockets are API 2.0, and 4.1 or later"
#endif

} // namespace vemk
