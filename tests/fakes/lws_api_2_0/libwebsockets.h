/// The part of libwebsockets' API 2.0 that the daemon uses, for proving that it builds and works
/// against that release too.
///
/// That API has no lws_sul_schedule, no reasons for a closed client connection or a cancelled wait,
/// and its functions take the information records as non-const.
#ifndef VEMK_TESTS_LWS_API_2_0_LIBWEBSOCKETS_H
#define VEMK_TESTS_LWS_API_2_0_LIBWEBSOCKETS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LWS_LIBRARY_VERSION_MAJOR 2
#define LWS_LIBRARY_VERSION_MINOR 0
#define LWS_LIBRARY_VERSION_NUMBER 2000000

#define LWS_PRE 16
#define CONTEXT_PORT_NO_LISTEN -1

struct lws;
struct lws_context;
struct lws_extension;
struct lws_token_limits;

enum lws_log_levels {
  LLL_ERR = 1 << 0,
  LLL_WARN = 1 << 1,
  LLL_NOTICE = 1 << 2,
  LLL_INFO = 1 << 3,
  LLL_DEBUG = 1 << 4,
  LLL_PARSER = 1 << 5,
  LLL_HEADER = 1 << 6,
  LLL_EXT = 1 << 7,
  LLL_CLIENT = 1 << 8,
  LLL_LATENCY = 1 << 9,
};

enum lws_callback_reasons {
  LWS_CALLBACK_ESTABLISHED = 0,
  LWS_CALLBACK_CLIENT_CONNECTION_ERROR = 1,
  LWS_CALLBACK_CLIENT_FILTER_PRE_ESTABLISH = 2,
  LWS_CALLBACK_CLIENT_ESTABLISHED = 3,
  LWS_CALLBACK_CLOSED = 4,
  LWS_CALLBACK_CLOSED_HTTP = 5,
  LWS_CALLBACK_RECEIVE = 6,
  LWS_CALLBACK_RECEIVE_PONG = 7,
  LWS_CALLBACK_CLIENT_RECEIVE = 8,
  LWS_CALLBACK_CLIENT_RECEIVE_PONG = 9,
  LWS_CALLBACK_CLIENT_WRITEABLE = 10,
  LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER = 24,
  LWS_CALLBACK_PROTOCOL_INIT = 27,
  LWS_CALLBACK_PROTOCOL_DESTROY = 28,
  LWS_CALLBACK_WSI_CREATE = 29,
  LWS_CALLBACK_WSI_DESTROY = 30,
  LWS_CALLBACK_GET_THREAD_ID = 31,
  LWS_CALLBACK_ADD_POLL_FD = 32,
  LWS_CALLBACK_DEL_POLL_FD = 33,
  LWS_CALLBACK_CHANGE_MODE_POLL_FD = 34,
  LWS_CALLBACK_LOCK_POLL = 35,
  LWS_CALLBACK_UNLOCK_POLL = 36,
  LWS_CALLBACK_WS_PEER_INITIATED_CLOSE = 38,
  LWS_CALLBACK_USER = 1000,
};

enum lws_write_protocol {
  LWS_WRITE_TEXT = 0,
  LWS_WRITE_BINARY = 1,
  LWS_WRITE_CONTINUATION = 2,
  LWS_WRITE_HTTP = 3,
  LWS_WRITE_PING = 5,
  LWS_WRITE_PONG = 6,
};

typedef int lws_sockfd_type;

typedef int lws_callback_function(struct lws *wsi, enum lws_callback_reasons reason, void *user,
                                  void *in, size_t len);

struct lws_protocols {
  const char *name;
  lws_callback_function *callback;
  size_t per_session_data_size;
  size_t rx_buffer_size;
  unsigned int id;
  void *user;
};

struct lws_context_creation_info {
  int port;
  const char *iface;
  const struct lws_protocols *protocols;
  const struct lws_extension *extensions;
  const struct lws_token_limits *token_limits;
  const char *http_proxy_address;
  unsigned int http_proxy_port;
  int gid;
  int uid;
  unsigned int options;
  void *user;
  int ka_time;
};

struct lws_client_connect_info {
  struct lws_context *context;
  const char *address;
  int port;
  int ssl_connection;
  const char *path;
  const char *host;
  const char *origin;
  const char *protocol;
  int ietf_version_or_minus_one;
  void *userdata;
  const struct lws_extension *client_exts;
};

void lws_set_log_level(int level, void (*log_emit_function)(int level, const char *line));
struct lws_context *lws_create_context(struct lws_context_creation_info *info);
void lws_context_destroy(struct lws_context *context);
struct lws *lws_client_connect_via_info(struct lws_client_connect_info *info);
int lws_service(struct lws_context *context, int timeout_ms);
int lws_callback_on_writable(struct lws *wsi);
int lws_write(struct lws *wsi, unsigned char *buf, size_t len, enum lws_write_protocol protocol);
size_t lws_remaining_packet_payload(struct lws *wsi);
int lws_is_final_fragment(struct lws *wsi);
int lws_get_socket_fd(struct lws *wsi);
int lws_partial_buffered(struct lws *wsi);
int lws_rx_flow_control(struct lws *wsi, int enable);

#ifdef __cplusplus
}
#endif

#endif
