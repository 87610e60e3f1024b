// A bus library of datagrams, small enough to leave the daemon's own cost visible.
//
// The variable STUB_BUS_FOLDER names a folder: the daemon's messages go to the socket "peer" in it,
// and each datagram sent to the socket "daemon" is one message to the daemon. Without the variable
// it is a bus on which nothing ever happens.
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include "module_bus.h"

enum { length_offset = 4, payload_offset = 13 };

static int own_socket = -1;
static int module_loop;
static struct sockaddr_un peer_address;

// Returns 0 when the folder's name fits an address.
static int set_address(struct sockaddr_un *address, const char *folder, const char *name) {
  memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  if (strlen(folder) + 1 + strlen(name) >= sizeof address->sun_path)
    return -1;
  strcpy(address->sun_path, folder);
  strcat(address->sun_path, "/");
  strcat(address->sun_path, name);
  return 0;
}

static int open_socket(const char *folder) {
  struct sockaddr_un own_address;
  if (set_address(&own_address, folder, "daemon") != 0 ||
      set_address(&peer_address, folder, "peer") != 0)
    return -1;
  own_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (own_socket < 0)
    return -1;
  unlink(own_address.sun_path);
  return bind(own_socket, (const struct sockaddr *)&own_address, sizeof own_address);
}

void InitTrace(const char *module_name) {
  (void)module_name;
}

void SetTraceOpt(int target, int level, int flags) {
  (void)target;
  (void)level;
  (void)flags;
}

int InitLibParams(int module_id, const signed char *list, int count) {
  (void)module_id;
  (void)list;
  (void)count;
  return 0;
}

void FreeLibParams(void) {
  ModulePeerStop();
}

int ModulePeerStart(void) {
  const char *folder = getenv("STUB_BUS_FOLDER");
  if (folder != NULL && open_socket(folder) != 0) {
    ModulePeerStop();
    return -1;
  }
  module_loop = 1;
  return 0;
}

void ModulePeerStop(void) {
  if (own_socket >= 0)
    close(own_socket);
  own_socket = -1;
}

int GetModuleLoop(void) {
  return module_loop;
}

void SetModuleLoop(int value) {
  module_loop = value;
}

void *GetMsgFromQueueNoWait(void) {
  if (own_socket < 0)
    return NULL;
  const ssize_t size = recv(own_socket, NULL, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
  if (size < 0)
    return NULL;
  char *record = calloc(1, payload_offset + (size_t)size);
  if (record == NULL)
    return NULL;
  const uint32_t length = (uint32_t)size;
  memcpy(record + length_offset, &length, sizeof length);
  recv(own_socket, record + payload_offset, length, MSG_DONTWAIT);
  return record;
}

int MsgSend(const void *data, int destination, uint32_t length) {
  (void)destination;
  if (own_socket < 0)
    return -1;
  const ssize_t sent = sendto(own_socket, data, length, MSG_NOSIGNAL,
                              (const struct sockaddr *)&peer_address, sizeof peer_address);
  return sent == (ssize_t)length ? 0 : -1;
}
