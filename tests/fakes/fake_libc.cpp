#include "fakes/fake_libc.h"

#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <ctime>
#include <deque>
#include <mutex>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>
#include <utility>

#include "fakes/time64.h"

namespace {

constexpr std::int64_t second_us = 1000000;
constexpr std::int64_t start_us = 1000 * second_us;

struct select_failure_t {
  int error;
  std::int64_t slept_us;
};

std::recursive_mutex state_lock;
std::int64_t clock_us = start_us;
std::deque<std::int64_t> readings;
int reads = 0;
std::function<void(std::int64_t)> sleep_hook;
std::function<void()> poll_hook;
std::deque<select_failure_t> select_failures;
std::deque<int> rand_values;
std::atomic<bool> pipe_fails{false};
std::atomic<bool> eventfd_fails{false};
std::atomic<bool> exit_ends_the_process{false};

struct exit_catcher_t {
  jmp_buf point;
  int status;
};
thread_local exit_catcher_t *exit_catcher = nullptr;

using guard = vemk::fake_call_guard<std::recursive_mutex>;

} // namespace

extern "C" {

int __real_clock_gettime(clockid_t id, timespec *time);

int __wrap_clock_gettime(clockid_t id, timespec *time) {
  if (id != CLOCK_MONOTONIC)
    return __real_clock_gettime(id, time);
  const guard locked(state_lock);
  ++reads;
  std::int64_t reading_us = clock_us;
  if (!readings.empty()) {
    reading_us = readings.front() * second_us;
    readings.pop_front();
  }
  time->tv_sec = static_cast<time_t>(reading_us / second_us);
  time->tv_nsec = static_cast<long>(reading_us % second_us * 1000);
  return 0;
}

int __wrap_usleep(useconds_t microseconds) {
  std::function<void(std::int64_t)> hook;
  {
    const guard locked(state_lock);
    vemk::fake_libc::sleeps_us.add(microseconds);
    clock_us += microseconds;
    hook = sleep_hook;
  }
  if (hook)
    hook(microseconds);
  return 0;
}

int __wrap_select(int descriptors, fd_set *, fd_set *, fd_set *, timeval *timeout) {
  const guard locked(state_lock);
  if (descriptors != 0) {
    errno = EINVAL;
    return -1;
  }
  const std::int64_t asked_us = timeout->tv_sec * second_us + timeout->tv_usec;
  vemk::fake_libc::select_timeouts_us.add(asked_us);
  select_failure_t outcome{0, asked_us};
  if (!select_failures.empty()) {
    outcome = select_failures.front();
    select_failures.pop_front();
  }
  clock_us += outcome.slept_us;
  const std::int64_t left_us = asked_us - outcome.slept_us;
  timeout->tv_sec = static_cast<time_t>(left_us / second_us);
  timeout->tv_usec = static_cast<suseconds_t>(left_us % second_us);
  if (outcome.error == 0)
    return 0;
  errno = outcome.error;
  return -1;
}

int __real_poll(pollfd *descriptors, nfds_t count, int limit_ms);

int __wrap_poll(pollfd *descriptors, nfds_t count, int limit_ms) {
  const int ready = __real_poll(descriptors, count, 0);
  if (limit_ms == 0)
    return ready;
  std::function<void()> hook;
  {
    const guard locked(state_lock);
    vemk::fake_libc::poll_limits_ms.add(limit_ms);
    hook = poll_hook;
  }
  if (ready != 0)
    return ready;
  if (hook)
    hook();
  const int ready_later = __real_poll(descriptors, count, 0);
  if (ready_later == 0) {
    const guard locked(state_lock);
    clock_us += std::int64_t{limit_ms} * 1000;
  }
  return ready_later;
}

int __wrap_rand() {
  const guard locked(state_lock);
  if (rand_values.empty())
    return 0;
  const int value = rand_values.front();
  rand_values.pop_front();
  return value;
}

int __real_pipe(int *ends);

int __wrap_pipe(int *ends) {
  if (pipe_fails) {
    errno = EMFILE;
    return -1;
  }
  const int result = __real_pipe(ends);
  vemk::fake_libc::made_pipes.add(ends[0]);
  vemk::fake_libc::made_pipes.add(ends[1]);
  return result;
}

int __real_eventfd(unsigned count, int flags);

int __wrap_eventfd(unsigned count, int flags) {
  if (!eventfd_fails)
    return __real_eventfd(count, flags);
  errno = EMFILE;
  return -1;
}

int __real_close(int descriptor);

int __wrap_close(int descriptor) {
  vemk::fake_libc::closed_descriptors.add(descriptor);
  return __real_close(descriptor);
}

void __wrap_perror(const char *text) {
  vemk::fake_libc::perror_texts.add(text);
}

[[noreturn]] void __real_exit(int status);

[[noreturn]] void __wrap_exit(int status) {
  if (exit_ends_the_process)
    __real_exit(status);
  if (exit_catcher != nullptr) {
    exit_catcher->status = status;
    longjmp(exit_catcher->point, 1);
  }
  throw vemk::fake_libc::process_exit{status};
}
}

namespace vemk::fake_libc {

record_of<std::int64_t> sleeps_us;
record_of<std::int64_t> select_timeouts_us;
record_of<int> poll_limits_ms;
record_of<int> made_pipes;
record_of<int> closed_descriptors;
record_of<std::string> perror_texts;

void reset() {
  const guard locked(state_lock);
  clock_us = start_us;
  readings.clear();
  reads = 0;
  sleeps_us.clear();
  sleep_hook = nullptr;
  poll_limits_ms.clear();
  poll_hook = nullptr;
  select_timeouts_us.clear();
  select_failures.clear();
  rand_values.clear();
  pipe_fails = false;
  eventfd_fails = false;
  made_pipes.clear();
  closed_descriptors.clear();
  perror_texts.clear();
  exit_ends_the_process = false;
}

void let_exit_end_the_process() {
  exit_ends_the_process = true;
}

std::optional<int> exit_status(const std::function<void()> &operation) {
  exit_catcher_t catcher{};
  exit_catcher = &catcher;
  if (setjmp(catcher.point) == 0) {
    operation();
    exit_catcher = nullptr;
    return std::nullopt;
  }
  exit_catcher = nullptr;
  return catcher.status;
}

std::int64_t now_us() {
  const guard locked(state_lock);
  return clock_us;
}

void set_seconds(std::int64_t seconds) {
  const guard locked(state_lock);
  clock_us = seconds * second_us;
}

void advance_seconds(std::int64_t seconds) {
  const guard locked(state_lock);
  clock_us += seconds * second_us;
}

void script_readings(const std::vector<std::int64_t> &seconds) {
  const guard locked(state_lock);
  readings.assign(seconds.begin(), seconds.end());
}

int clock_reads() {
  const guard locked(state_lock);
  return reads;
}

void on_sleep(std::function<void(std::int64_t)> hook) {
  const guard locked(state_lock);
  sleep_hook = std::move(hook);
}

void on_poll(std::function<void()> hook) {
  const guard locked(state_lock);
  poll_hook = std::move(hook);
}

void fail_select(int error, std::int64_t slept_us) {
  const guard locked(state_lock);
  select_failures.push_back({error, slept_us});
}

void script_rand(const std::vector<int> &values) {
  const guard locked(state_lock);
  rand_values.assign(values.begin(), values.end());
}

void fail_pipe() {
  pipe_fails = true;
}

void fail_eventfd() {
  eventfd_fails = true;
}

} // namespace vemk::fake_libc
