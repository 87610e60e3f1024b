// Preloaded into the daemon: one request for memory fails.
//
// FAILING_MEMORY names a file with one record_t, which a test changes while the daemon runs.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

typedef struct {
  // The request that fails, counted from 1 among those of the thread from `smallest` to `largest`
  // bytes. None while it is 0, which it is again once it was refused.
  int64_t countdown;
  // The counting begins behind the thread's request of this many bytes; at once when it is 0.
  int64_t trigger;
  int64_t smallest;
  int64_t largest;
  // What was refused last.
  int64_t refused;
  char thread[16];
} record_t;

// The C library's own, under the names by which it calls them itself.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static volatile record_t *record;

__attribute__((constructor)) static void open_record(void) {
  const char *path = getenv("FAILING_MEMORY");
  const int file = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
  if (file < 0)
    return;
  void *mapped = mmap(NULL, sizeof(record_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (mapped != MAP_FAILED)
    record = mapped;
}

static int is_of_the_thread(void) {
  char name[16] = "";
  prctl(PR_GET_NAME, name);
  return strncmp(name, (const char *)record->thread, sizeof name) == 0;
}

static int counts_down_to_zero(int64_t size) {
  if (record->trigger != 0) {
    if (size == record->trigger)
      record->trigger = 0;
    return 0;
  }
  if (record->countdown == 0 || size < record->smallest || size > record->largest ||
      --record->countdown != 0)
    return 0;
  record->refused = size;
  return 1;
}

static int refuses(size_t size) {
  if (record == NULL || record->countdown == 0 || !is_of_the_thread())
    return 0;
  pthread_mutex_lock(&lock);
  const int refused = counts_down_to_zero((int64_t)size);
  pthread_mutex_unlock(&lock);
  if (refused)
    errno = ENOMEM;
  return refused;
}

void *malloc(size_t size) {
  return refuses(size) ? NULL : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
  return refuses(count * size) ? NULL : __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
  return refuses(size) ? NULL : __libc_realloc(block, size);
}
