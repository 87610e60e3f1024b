// Preloaded into the daemon: a clock that goes faster, and pauses that are as much shorter.
//
// FAST_CLOCK gives the speed, an integer. Between two looks at the clock at most 0.6 seconds of its
// time pass, or those of a longer poll. When this machine stalls, the clock goes slower for a moment
// instead of jumping: the daemon ends when it finds that more than ten seconds have passed. Between
// two of its checks, some twenty lines of the log look at the clock. stepping_clock.c cannot serve
// here: it makes just such jumps, and the libraries' clock and all pauses stay as they are.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const int64_t second_ns = 1000000000;
static const int64_t max_step_ns = 600000000;

static pthread_once_t started = PTHREAD_ONCE_INIT;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int64_t speed = 1;
static int64_t last_look_ns;
// What this clock is ahead of the real ones.
static int64_t ahead_ns;

static int (*real_clock_gettime)(clockid_t, struct timespec *);
static int (*real_nanosleep)(const struct timespec *, struct timespec *);
static int (*real_ppoll)(struct pollfd *, nfds_t, const struct timespec *, const sigset_t *);

static int64_t real_ns(clockid_t clock) {
  struct timespec now = {0, 0};
  real_clock_gettime(clock, &now);
  return now.tv_sec * second_ns + now.tv_nsec;
}

static struct timespec timespec_of(int64_t ns) {
  const struct timespec time = {(time_t)(ns / second_ns), (long)(ns % second_ns)};
  return time;
}

static void start(void) {
  real_clock_gettime = (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "clock_gettime");
  real_nanosleep =
      (int (*)(const struct timespec *, struct timespec *))dlsym(RTLD_NEXT, "nanosleep");
  real_ppoll = (int (*)(struct pollfd *, nfds_t, const struct timespec *, const sigset_t *))dlsym(
      RTLD_NEXT, "ppoll");
  const char *wanted = getenv("FAST_CLOCK");
  if (wanted != NULL && atoi(wanted) > 0)
    speed = atoi(wanted);
  last_look_ns = real_ns(CLOCK_MONOTONIC);
}

static int64_t look(int64_t longest_step_ns) {
  pthread_once(&started, start);
  pthread_mutex_lock(&lock);
  const int64_t now = real_ns(CLOCK_MONOTONIC);
  const int64_t real_step = now - last_look_ns;
  int64_t step = real_step * speed;
  if (step > longest_step_ns)
    step = longest_step_ns;
  ahead_ns += step - real_step;
  last_look_ns = now;
  const int64_t result = ahead_ns;
  pthread_mutex_unlock(&lock);
  return result;
}

int clock_gettime(clockid_t clock, struct timespec *time) {
  const int64_t ahead = look(max_step_ns);
  const int result = real_clock_gettime(clock, time);
  if (result == 0 && (clock == CLOCK_MONOTONIC || clock == CLOCK_REALTIME))
    *time = timespec_of(time->tv_sec * second_ns + time->tv_nsec + ahead);
  return result;
}

int gettimeofday(struct timeval *restrict time, void *restrict zone) {
  (void)zone;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  time->tv_sec = now.tv_sec;
  time->tv_usec = now.tv_nsec / 1000;
  return 0;
}

time_t time(time_t *result) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != NULL)
    *result = now.tv_sec;
  return now.tv_sec;
}

int usleep(useconds_t pause_us) {
  pthread_once(&started, start);
  const struct timespec pause = timespec_of((int64_t)pause_us * 1000 / speed);
  return real_nanosleep(&pause, NULL);
}

// The daemon checks its clock on this thread alone. When this one stalls, the clock must not make up
// for the time in the long wait of another one.
static bool checks_clock(void) {
  char name[16] = "";
  prctl(PR_GET_NAME, name);
  return strcmp(name, "websock-roaming") == 0;
}

int poll(struct pollfd *descriptors, nfds_t count, int limit_ms) {
  pthread_once(&started, start);
  const int64_t limit_ns = (int64_t)limit_ms * 1000000;
  const struct timespec limit = timespec_of(limit_ns / speed);
  const bool is_long = limit_ns > max_step_ns && checks_clock();
  if (is_long)
    look(max_step_ns);
  const int ready = real_ppoll(descriptors, count, limit_ms < 0 ? NULL : &limit, NULL);
  if (is_long)
    look(limit_ns);
  return ready;
}
