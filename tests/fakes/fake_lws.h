/// A WebSocket library without a network, in place of libwebsockets.
///
/// It keeps a record of the calls and delivers what the test says through the protocol callback of
/// the context created last. Contexts and connections are numbered from 1 in the order of their
/// creation; the records name them "context1" and "wsi1". It compiles against the installed release
/// and against API 2.0. All state may be used from any thread; hooks run without its lock.
#ifndef VEMK_TESTS_FAKE_LWS_H
#define VEMK_TESTS_FAKE_LWS_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <libwebsockets.h>

#include "fakes/fake_call.h"

namespace vemk::fake_lws {

/// What a client connection's close is reported with, and whether other threads may only wake the
/// service thread.
#if LWS_LIBRARY_VERSION_NUMBER >= 3000000
constexpr auto closed_reason = LWS_CALLBACK_CLIENT_CLOSED;
constexpr bool wakes_by_cancelling = true;
#else
constexpr auto closed_reason = LWS_CALLBACK_CLOSED;
constexpr bool wakes_by_cancelling = false;
#endif

/// Whether lws_service ignores its time limit.
constexpr bool ignores_limits = LWS_LIBRARY_VERSION_NUMBER >= 3002000;

/// What a connection without TLS that follows no redirect is asked for with.
#if LWS_LIBRARY_VERSION_NUMBER >= 4000000
constexpr int plain_connection = LCCSCF_HTTP_NO_FOLLOW_REDIRECT;
#else
constexpr int plain_connection = 0;
#endif

/// The reasons that this release has beyond API 2.0 and that concern the daemon.
std::vector<int> release_reasons();

/// A frame given to lws_write.
struct frame_t {
  std::string payload;
  int type;
  /// Whether the LWS_PRE bytes in front of the payload could be written, as the library does, and
  /// were zero before.
  bool headroom_was_zero;
  /// Whether the connection's socket collects full packets.
  bool is_corked;
};

/// lws_client_connect_info with its texts copied. `rest_is_zero` covers the other fields.
struct connect_info_t {
  lws_context *context;
  std::string address;
  int port;
  int ssl_connection;
  std::string path;
  std::string host;
  std::string origin;
  std::string protocol;
  int ietf_version;
  bool rest_is_zero;
};

/// lws_context_creation_info with entry 0 of its protocols. `rest_is_zero` covers the other
/// fields, `is_terminated` the whole of entry 1. Releases before 4.1 are given no time-outs.
struct creation_info_t {
  int port;
  int gid;
  int uid;
  unsigned timeout_secs;
  unsigned connect_timeout_secs;
  bool rest_is_zero;
  std::string protocol_name;
  lws_protocols protocol;
  bool is_terminated;
};

using log_hook = void (*)(int level, const char *line);

void reset();

/// Every call with its arguments, in order: "lws_set_log_level 3fb", "lws_create_context",
/// "lws_client_connect_via_info context1", "lws_service context1 500",
/// "lws_sul_schedule context1 0 500000" or "... cancel", "lws_write wsi1 <length> <type>",
/// "lws_callback_on_writable wsi1", "lws_rx_flow_control wsi1 0", "lws_cancel_service context1",
/// "lws_context_destroy context1".
/// "dead " stands in front of a context or connection that no longer exists.
extern record_of<std::string> calls;

extern record_of<frame_t> frames;
extern record_of<creation_info_t> creation_infos;
extern record_of<connect_info_t> connect_infos;
/// The log emitter given last.
log_hook current_log_hook();
/// Timers of the library that are scheduled at this moment.
std::size_t pending_timers();
/// The length of the last frame, whose bytes are not kept when this is on.
void keep_no_payloads();
std::size_t last_frame_length();

/// The next context or connection cannot be made.
void fail_next_context();
void fail_next_connection();
/// What the next calls of lws_write return. Else it is the length, and 6 for an empty ping.
void script_write_results(const std::vector<int> &results);
/// What the library tells of the piece being received; at first 0 and true.
void set_piece(std::size_t remaining, bool is_final);

/// The connection made last.
lws *connection();
lws *connection(std::size_t number);
/// Takes the connection away as the library does after a close: only its address is left.
void kill_connection(lws *wsi);

/// From now on lws_callback_on_writable calls the protocol back for its locks, on the caller's
/// thread, as it does before 3.0. A call "refused REASON" is recorded for each result but 0.
void call_back_for_locks();

/// Whether the socket collects full packets.
bool is_corked();

/// The socket of every connection, and whether part of a message waits for it; at first -1, false.
void set_socket(int descriptor);
void hold_back_rest(bool is_held_back);

/// Calls the protocol callback and returns what it returned.
int deliver(lws_callback_reasons reason, lws *wsi = connection(), std::size_t length = 0);
int deliver_piece(const std::string &bytes, lws *wsi = connection());
int deliver_null_piece(std::size_t length);

/// What happens inside the next calls of lws_service, one action a call.
void script_service(std::function<void()> action);
/// What happens inside every lws_context_destroy, before the context is gone.
void on_destroy(std::function<void()> action);

} // namespace vemk::fake_lws

#endif
