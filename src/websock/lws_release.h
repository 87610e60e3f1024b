/// The differences between releases of libwebsockets, all in one place.
///
/// The worker is written against API 2.0, and every release from there on is supported. A release
/// that is newer than those below counts as the newest of them.
///
/// - Since 2.3 a release can write more than 4096 bytes at once.
/// - From 2.4 to 3.0.0 a pong without a payload is not reported.
/// - Since 3.0 the end of a client connection is LWS_CALLBACK_CLIENT_CLOSED, and another thread may
///   only wake the service thread.
/// - Since 3.2 lws_service ignores its time limit, and the library's timers end the wait.
/// - Since 4.0 redirects can be refused and all addresses of a host are tried. The send buffer is
///   the kernel's.
/// - Since 4.1 a handshake has 5 seconds, and a late one is reported as the end of an HTTP
///   connection.
/// - Before 2.4 a failed lws_create_context closes descriptor 0, whatever that is. Since 4.3 it
///   succeeds without a descriptor for wake-ups, and lws_context_destroy crashes.
#ifndef VEMK_WEBSOCK_LWS_RELEASE_H
#define VEMK_WEBSOCK_LWS_RELEASE_H

#include <cstddef>
#include <cstdint>
#include <mutex>

#include <libwebsockets.h>

namespace vemk {

/// The callback type of lws_protocols, as API 2.0 writes it.
using lws_protocol_callback = int (*)(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                                      std::size_t length);

/// An attempt without a report by then has failed. Releases before 4.0 forget an attempt that an
/// answer redirects to a place without an address. The library waits 20 seconds for a connection
/// and 20 for the handshake. A look-up may take 10 seconds, twice before 4.0. Since 4.0 each
/// address has its 20 seconds, and the answer of a name server, of 512 bytes, holds 29 of them.
#if LWS_LIBRARY_VERSION_NUMBER >= 4000000
constexpr std::int32_t attempt_limit_seconds = 640;
#else
constexpr std::int32_t attempt_limit_seconds = 70;
#endif

/// The length of a ping's payload. From 2.4.0 to 3.0.0 the library does not report a pong without a
/// payload, so that no connection would outlive three pings.
#if LWS_LIBRARY_VERSION_NUMBER >= 2004000 && LWS_LIBRARY_VERSION_NUMBER <= 3000000
constexpr std::size_t ping_length = 1;
#else
constexpr std::size_t ping_length = 0;
#endif

/// Keeps proxy variables in the caller's environment from diverting connections: the daemon takes
/// no configuration from there. Changes the process's environment.
/// REQUIRES: no other thread exists.
void ignore_proxy_environment();

/// Gives a server 20 seconds to accept the connection, and another 20 to answer the handshake. That
/// is the limit of releases before 4.1. Later releases have one of 5 seconds, which a service that
/// is overloaded after an outage may never meet. Releases that try more than the first address of a
/// host try the next one when an address is silent for that long.
void wait_for_slow_servers(lws_context_creation_info &info);

/// lws_create_context, which does nothing but return null when too few descriptors are left.
lws_context *create_context(lws_context_creation_info &info);

/// Lets a frame leave as fast as the socket takes it. Without this, releases that have the setting
/// pass 4096 bytes to the socket per service call. A message of some megabytes would then take
/// longer than the watchdog allows, and never arrive.
void lift_send_limit(lws_protocols &protocol);

/// lws_service that returns after at most `limit_ms` milliseconds. Service thread only.
void service_for_at_most(lws_context *context, int limit_ms);

/// One attempt at a connection, and the connection, as API 2.0 shows them.
///
/// Threading: request() on any thread, the rest on the service thread. Callbacks that the library
///   makes out of request() are on the thread of request(), see is_requesting().
/// Ownership: none; the library owns the connection and frees it when it closes.
class lws_release {
public:
  /// Treats a redirect as a refusal: the daemon connects only to the server that the configuration
  /// names. Call this before each attempt.
  void refuse_redirects(lws_client_connect_info &info);

  /// Requests a writeable callback on the service thread for `wsi`, unless `wsi` has closed. Before
  /// 3.0 this calls lws_callback_on_writable on the calling thread.
  /// REQUIRES: `context` is alive during the call.
  void request(lws_context *context, lws *wsi);

  /// True in callbacks that request() causes on its own thread. These report nothing.
  static bool is_requesting();

  /// Call this in every other protocol callback, before its dispatch. Does the part of request()
  /// that is left to the service thread, and returns the reason as API 2.0 numbers it. `length` is
  /// that of the callback.
  int observe(lws *wsi, lws_callback_reasons reason, std::size_t length);

  /// The established connection for as long as the library has it; null otherwise.
  lws *established() const;

  /// The answer to LWS_CALLBACK_GET_THREAD_ID by which the library ends a wait of the service
  /// thread for a request() of another one. Any thread.
  static int thread_number();

  /// Call this with each ping whose pong cannot be read. Since 4.0 the library closes a connection
  /// on which no pong came for 310 seconds.
  static void put_off_expiry(lws *wsi);

  /// Sends the part of a message that the library holds back, as far as the socket takes it. Makes
  /// one service call for each 4096 bytes, with releases that write no more at once.
  void send_rest(lws_context *context);

private:
  /// Refuses the socket of a redirect, and widens the established one.
  void handle_socket(lws *wsi, lws_callback_reasons reason);

  int handle_connection(lws *wsi, lws_callback_reasons reason, std::size_t length);

  lws *connection = nullptr;
#if LWS_LIBRARY_VERSION_NUMBER < 3000000
  void forget(const lws *wsi);

  /// Guards `connection`, and delays its end while request() uses it. Only the library's own locks
  /// are taken under this one.
  std::mutex in_use;
#endif
#if LWS_LIBRARY_VERSION_NUMBER < 4000000
  /// Whether this attempt has sent its opening request.
  bool has_asked = false;

  /// What a redirect's socket becomes. It stays open, because no descriptor may be left when the
  /// redirect comes.
  int no_socket = -1;
#endif
};

} // namespace vemk

#endif
