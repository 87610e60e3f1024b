/// The differences between releases of libwebsockets, all in one place.
///
/// The worker is written against API 2.0. Later releases report the end of a client connection, and
/// of an attempt at one, with reasons of their own, ignore the time limit of lws_service, and allow
/// other threads only to wake the service thread.
#ifndef VEMK_WEBSOCK_LWS_RELEASE_H
#define VEMK_WEBSOCK_LWS_RELEASE_H

#include <cstddef>

#include <libwebsockets.h>

namespace vemk {

/// The callback type of lws_protocols, as API 2.0 writes it.
using lws_protocol_callback = int (*)(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                                      std::size_t length);

/// Keeps proxy variables in the caller's environment from diverting connections: the daemon takes
/// no configuration from there. Changes the process's environment, so it is for a moment at which
/// no other thread exists.
void ignore_proxy_environment();

/// Gives a server 20 seconds to accept the connection, and as many again to answer the handshake.
/// That is API 2.0's own limit; later releases have one of 5 seconds, which a service that is
/// overloaded after an outage may never meet. A host's next address is tried when one is silent for
/// that long, on releases that try more than the first.
void wait_for_slow_servers(lws_context_creation_info &info);

/// Lets a frame leave as fast as the socket takes it. Without this, releases that have the setting
/// hand 4096 bytes to the socket per service call: a message of some megabytes would take longer
/// than the watchdog allows, and never arrive.
void lift_send_limit(lws_protocols &protocol);

/// Takes a redirect for the refusal that it is: the server is the one that the configuration names.
/// Releases that have no such setting are left as they are.
void refuse_redirects(lws_client_connect_info &info);

/// lws_service that returns after at most `limit_ms` milliseconds. Service thread only.
void service_for_at_most(lws_context *context, int limit_ms);

/// Asks for writeable callbacks of one connection from any thread.
///
/// Threading: request() on any thread, observe() on the service thread.
/// Ownership: none; the connection is the library's, which frees it when it closes.
class writeable_wakeup {
public:
  /// Has the service thread get a writeable callback for `wsi`, which is the connection
  /// established last. `context` is alive during the call. API 2.0 is handed `wsi` itself; later
  /// releases free it when it closes, and there nothing is done for one that is gone.
  static void request(lws_context *context, lws *wsi);

  /// To be called in every protocol callback, before it is dispatched. Does what request() left to
  /// the service thread and returns the reason as API 2.0 numbers it.
  int observe(lws *wsi, lws_callback_reasons reason);

private:
#if LWS_LIBRARY_VERSION_NUMBER >= 4001000
  /// The established connection for as long as the library has it; null otherwise.
  lws *connection = nullptr;
#endif
};

} // namespace vemk

#endif
