// Preloaded into the daemon: a monotonic clock that a test makes step.
//
// STEPPING_CLOCK names a file of two 64-bit integers: the seconds to add to a reading, and how many
// readings are still to get them, every one if that is negative. Readings of the program itself
// count, those of its libraries do not. A step begins at a reading in the same second as the one
// before it, so that the program sees a step of exactly that many seconds.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

typedef struct {
  _Atomic int64_t seconds;
  _Atomic int64_t readings;
} step_t;

static pthread_once_t started = PTHREAD_ONCE_INIT;
static step_t *step;
static void *program;
static bool stepping;
static time_t last_second;

static int (*real_clock_gettime)(clockid_t, struct timespec *);

static void *object_of(const void *address) {
  Dl_info found;
  return dladdr(address, &found) != 0 ? found.dli_fbase : NULL;
}

static void start(void) {
  real_clock_gettime = (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "clock_gettime");
  program = object_of((const void *)getauxval(AT_ENTRY));
  const char *path = getenv("STEPPING_CLOCK");
  const int file = path != NULL ? open(path, O_RDWR | O_CLOEXEC) : -1;
  step = mmap(NULL, sizeof *step, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (step == MAP_FAILED) {
    perror("stepping_clock: STEPPING_CLOCK");
    abort();
  }
  close(file);
}

static bool steps_now(time_t second) {
  const int64_t readings = step->readings;
  const bool begins = second == last_second;
  last_second = second;
  if (readings == 0 || !(stepping || begins)) {
    stepping = false;
    return false;
  }
  stepping = true;
  if (readings > 0)
    step->readings = readings - 1;
  return true;
}

int clock_gettime(clockid_t clock, struct timespec *time) {
  pthread_once(&started, start);
  const int result = real_clock_gettime(clock, time);
  if (clock == CLOCK_MONOTONIC && object_of(__builtin_return_address(0)) == program &&
      steps_now(time->tv_sec))
    time->tv_sec += step->seconds;
  return result;
}
