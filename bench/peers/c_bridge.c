/* A bridge with as little as one needs: one thread, the WebSocket library's loop, no queue of its
 * own. It takes messages from the bus when the service's socket has room for them.
 * Usage: bench_c_bridge PORT
 */
#include <libwebsockets.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "module_bus.h"

enum { length_offset = 4, payload_offset = 13, every_listener = 3, ping_s = 30 };

static struct lws *service;
static struct lws *bus;
static int ended;

static unsigned char *frame;
static size_t frame_size;

/* The pieces of a message that came in several. */
static unsigned char *message;
static size_t message_length;

static void *grown(void *block, size_t size) {
  void *larger = realloc(block, size);
  if (larger == NULL) {
    perror("bench_c_bridge");
    exit(1);
  }
  return larger;
}

/* Returns what lws_write returned. */
static int send_record(const unsigned char *record) {
  uint32_t length;
  memcpy(&length, record + length_offset, sizeof length);
  if (frame_size < LWS_PRE + length) {
    frame_size = LWS_PRE + (size_t)length;
    frame = grown(frame, frame_size);
  }
  memcpy(frame + LWS_PRE, record + payload_offset, length);
  return lws_write(service, frame + LWS_PRE, length, LWS_WRITE_TEXT);
}

static int pass_up(void) {
  while (lws_send_pipe_choked(service) == 0) {
    void *record = GetMsgFromQueueNoWait();
    int sent;
    if (record == NULL) {
      if (bus != NULL)
        lws_rx_flow_control(bus, 1);
      return 0;
    }
    sent = send_record(record);
    free(record);
    if (sent < 0)
      return -1;
  }
  lws_callback_on_writable(service);
  return 0;
}

static void pass_down(const void *piece, size_t length) {
  const int is_last = lws_remaining_packet_payload(service) == 0 && lws_is_final_fragment(service);
  if (!is_last || message_length > 0) {
    message = grown(message, message_length + length);
    memcpy(message + message_length, piece, length);
    message_length += length;
  }
  if (!is_last)
    return;
  if (message_length > 0)
    MsgSend(message, every_listener, (uint32_t)message_length);
  else
    MsgSend(piece, every_listener, (uint32_t)length);
  message_length = 0;
  /* A call of the bus may have used up what the descriptor showed. */
  lws_callback_on_writable(service);
}

static void join_bus(void) {
  lws_sock_file_fd_type descriptor;
  descriptor.filefd = dup(GetMsgDescriptor());
  bus = lws_adopt_descriptor_vhost(lws_get_vhost(service), LWS_ADOPT_RAW_FILE_DESC, descriptor,
                                   "websock-roaming", NULL);
  lws_callback_on_writable(service);
}

static int on_event(struct lws *wsi, enum lws_callback_reasons reason, void *user, void *in,
                    size_t length) {
  (void)user;
  switch (reason) {
  case LWS_CALLBACK_CLIENT_ESTABLISHED:
    service = wsi;
    join_bus();
    break;
  case LWS_CALLBACK_CLIENT_RECEIVE:
    pass_down(in, length);
    break;
  case LWS_CALLBACK_CLIENT_WRITEABLE:
    return pass_up();
  case LWS_CALLBACK_RAW_RX_FILE:
    lws_rx_flow_control(wsi, 0);
    lws_callback_on_writable(service);
    break;
  case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
  case LWS_CALLBACK_CLIENT_CLOSED:
    ended = 1;
    break;
  default:
    break;
  }
  return 0;
}

int main(int argc, char **argv) {
  static const struct lws_protocols protocols[] = {
      {"websock-roaming", on_event, 0, 0, 0, NULL, 1 << 30}, {NULL, NULL, 0, 0, 0, NULL, 0}};
  static const lws_retry_bo_t pings = {.secs_since_valid_ping = ping_s,
                                       .secs_since_valid_hangup = 3 * ping_s};
  const signed char list[] = {-2, 0};
  struct lws_context_creation_info creation;
  struct lws_client_connect_info connection;
  struct lws_context *context;

  if (argc != 2 || InitLibParams(2, list, sizeof list) != 0 || ModulePeerStart() != 0)
    return 1;
  lws_set_log_level(0, NULL);
  memset(&creation, 0, sizeof creation);
  creation.port = CONTEXT_PORT_NO_LISTEN;
  creation.protocols = protocols;
  context = lws_create_context(&creation);
  if (context == NULL)
    return 1;
  memset(&connection, 0, sizeof connection);
  connection.context = context;
  connection.port = (int)strtol(argv[1], NULL, 10);
  connection.address = connection.host = connection.origin = "127.0.0.1";
  connection.path = "/roam";
  connection.protocol = protocols[0].name;
  connection.ietf_version_or_minus_one = -1;
  connection.retry_and_idle_policy = &pings;
  lws_client_connect_via_info(&connection);
  while (!ended && lws_service(context, 0) >= 0) {
  }
  ModulePeerStop();
  return 1;
}
