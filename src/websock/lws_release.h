/// The differences between releases of libwebsockets, all in one place.
///
/// The worker is written against API 2.0. Later releases differ in three ways. They report the end
/// of a client connection, and of an attempt, with reasons of their own. They ignore the time limit
/// of lws_service. They allow other threads only to wake the service thread.
#ifndef VEMK_WEBSOCK_LWS_RELEASE_H
#define VEMK_WEBSOCK_LWS_RELEASE_H

#include <cstddef>

#include <libwebsockets.h>

namespace vemk {

/// The callback type of lws_protocols, as API 2.0 writes it.
using lws_protocol_callback = int (*)(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                                      std::size_t length);

/// Keeps proxy variables in the caller's environment from diverting connections: the daemon takes
/// no configuration from there. Changes the process's environment.
/// REQUIRES: no other thread exists.
void ignore_proxy_environment();

/// Gives a server 20 seconds to accept the connection, and another 20 to answer the handshake. That
/// is API 2.0's own limit. Later releases have one of 5 seconds, which a service that is overloaded
/// after an outage may never meet. Releases that try more than the first address of a host try the
/// next one when an address is silent for that long.
void wait_for_slow_servers(lws_context_creation_info &info);

/// Lets a frame leave as fast as the socket takes it. Without this, releases that have the setting
/// pass 4096 bytes to the socket per service call. A message of some megabytes would then take
/// longer than the watchdog allows, and never arrive.
void lift_send_limit(lws_protocols &protocol);

/// Treats a redirect as a refusal: the daemon connects only to the server that the configuration
/// names. No effect on releases without such a setting.
void refuse_redirects(lws_client_connect_info &info);

/// lws_service that returns after at most `limit_ms` milliseconds. Service thread only.
void service_for_at_most(lws_context *context, int limit_ms);

/// Asks for writeable callbacks of one connection from any thread.
///
/// Threading: request() on any thread, observe() on the service thread.
/// Ownership: none; the connection is the library's, which frees it when it closes.
class writeable_wakeup {
public:
  /// Requests a writeable callback on the service thread for `wsi`, the connection established
  /// last. API 2.0 receives `wsi` itself. Later releases free it when it closes; with these a
  /// closed connection gets no callback.
  /// REQUIRES: `context` is alive during the call.
  static void request(lws_context *context, lws *wsi);

  /// Call this in every protocol callback, before its dispatch. Does the part of request() that is
  /// left to the service thread, and returns the reason as API 2.0 numbers it.
  int observe(lws *wsi, lws_callback_reasons reason);

private:
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
  /// The established connection for as long as the library has it; null otherwise.
  lws *connection = nullptr;
#endif
};

} // namespace vemk

#endif
