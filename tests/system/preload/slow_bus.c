// Preloaded into the daemon: each piece of a message that it gives to the bus takes longer.
//
// SLOW_BUS names a file with a 64-bit integer, the microseconds for each KiB, which a test changes
// while the daemon runs. The stand-in for the bus library, which otherwise never waits, sends the
// pieces with zmq_msg_send on the thread "ipc".
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

int zmq_msg_send(void *message, void *socket, int flags);

static const volatile int64_t *pause_us;
static int (*real_send)(void *, void *, int);

__attribute__((constructor)) static void start(void) {
  real_send = (int (*)(void *, void *, int))dlsym(RTLD_NEXT, "zmq_msg_send");
  const char *path = getenv("SLOW_BUS");
  const int file = path == NULL ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0)
    return;
  void *mapped = mmap(NULL, sizeof *pause_us, PROT_READ, MAP_SHARED, file, 0);
  close(file);
  if (mapped != MAP_FAILED)
    pause_us = mapped;
}

int zmq_msg_send(void *message, void *socket, int flags) {
  char name[16] = "";
  prctl(PR_GET_NAME, name);
  if (pause_us != NULL && *pause_us > 0 && strcmp(name, "ipc") == 0) {
    const struct timespec pause = {0, (long)*pause_us * 1000};
    nanosleep(&pause, NULL);
  }
  return real_send(message, socket, flags);
}
