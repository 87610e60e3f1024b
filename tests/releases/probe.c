/* A bare client of the library, which prints what the daemon's log does not show: the reason of
 * each callback, and when a call of the service function that another thread cancels returns.
 * Usage: probe PORT [cancel]
 */
#include <libwebsockets.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static int ended;
static struct timespec cancelled;

static int print_reason(struct lws *wsi, enum lws_callback_reasons reason, void *user, void *in,
                        size_t length) {
  (void)wsi, (void)user, (void)in, (void)length;
  printf("reason %d\n", (int)reason);
  if (reason == LWS_CALLBACK_WSI_DESTROY || reason == LWS_CALLBACK_CLOSED ||
      reason == LWS_CALLBACK_CLIENT_CONNECTION_ERROR)
    ended = 1;
  return 0;
}

static void *cancel(void *context) {
  sleep(3);
  printf("cancel\n");
  clock_gettime(CLOCK_MONOTONIC, &cancelled);
  lws_cancel_service(context);
  return NULL;
}

static double since_cancelled_ms(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - cancelled.tv_sec) * 1e3 +
         (double)(now.tv_nsec - cancelled.tv_nsec) / 1e6;
}

int main(int argc, char **argv) {
  static const struct lws_protocols protocols[] = {{"websock-roaming", print_reason, 0},
                                                   {NULL, NULL, 0}};
  struct lws_context_creation_info creation;
  struct lws_client_connect_info connection;
  struct lws_context *context;
  const int cancels = argc > 2 && strcmp(argv[2], "cancel") == 0;

  setvbuf(stdout, NULL, _IONBF, 0);
  lws_set_log_level(0, NULL);
  memset(&creation, 0, sizeof creation);
  creation.port = CONTEXT_PORT_NO_LISTEN;
  creation.gid = creation.uid = -1;
  creation.protocols = protocols;
  context = lws_create_context(&creation);
  if (context == NULL || argc < 2)
    return 1;
  memset(&connection, 0, sizeof connection);
  connection.context = context;
  connection.port = atoi(argv[1]);
  connection.address = connection.host = connection.origin = "127.0.0.1";
  connection.path = "/roam";
  connection.protocol = protocols[0].name;
  connection.ietf_version_or_minus_one = -1;
  if (lws_client_connect_via_info(&connection) == NULL)
    printf("null\n");
  if (cancels) {
    pthread_t thread;
    pthread_create(&thread, NULL, cancel, context);
    while (cancelled.tv_sec == 0)
      lws_service(context, 60000);
    printf("returned %.1f\n", since_cancelled_ms());
    return 0;
  }
  while (!ended)
    lws_service(context, 500);
  return 0;
}
