/// libc calls under a test's control: clock, sleeps, random numbers, descriptors and process exit.
///
/// A test program that links fake_libc gets these instead of the real ones, in the project's own
/// code only; the libraries keep theirs.
#ifndef VEMK_TESTS_FAKE_LIBC_H
#define VEMK_TESTS_FAKE_LIBC_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fakes/fake_call.h"

namespace vemk::fake_libc {

/// Thrown by exit() in place of ending the process. exit() counts as a function that never throws,
/// so a sanitizer's build may terminate over it.
struct process_exit {
  int status;
};

/// Back to second 1000 of the monotonic clock, nothing scripted, no hooks, empty records, and
/// exit() throws.
void reset();

/// From now on exit() ends the process, for death tests: a call of exit() inside a handler or
/// beside objects to clean up cannot be left in any other way.
void let_exit_end_the_process();

/// Runs the operation and returns the status with which it calls exit(), or nothing when it
/// returns. Unlike an exception this leaves the call in every build, but by a jump: no object that
/// has a destructor may live between the operation's beginning and the call of exit().
std::optional<int> exit_status(const std::function<void()> &operation);

/// The monotonic clock's time in microseconds. usleep and select advance it by what they sleep.
std::int64_t now_us();
void set_seconds(std::int64_t seconds);
void advance_seconds(std::int64_t seconds);

/// Readings, in whole seconds, that the next calls of clock_gettime return instead.
void script_readings(const std::vector<std::int64_t> &seconds);
/// How often the monotonic clock has been read since reset().
int clock_reads();

/// Every usleep in microseconds, in order.
extern record_of<std::int64_t> sleeps_us;
/// Called at the start of each usleep, after it has been recorded and the clock advanced.
void on_sleep(std::function<void(std::int64_t microseconds)> hook);

/// Every select timeout in microseconds, in order.
extern record_of<std::int64_t> select_timeouts_us;
/// The next calls of select fail: with EINTR after sleeping `slept_us` of it, or with `error`.
void fail_select(int error, std::int64_t slept_us);

/// Every time limit of poll in milliseconds, in order, 0 left out. With a limit, poll returns at
/// once when a descriptor is ready, and otherwise advances the clock by the limit.
extern record_of<int> poll_limits_ms;
/// Called in each poll with a limit while no descriptor is ready. May make one ready.
void on_poll(std::function<void()> hook);

/// What the next calls of rand return; 0 when they are used up.
void script_rand(const std::vector<int> &values);

/// pipe and eventfd fail with EMFILE.
void fail_pipe();
void fail_eventfd();
/// The descriptors that pipe made.
extern record_of<int> made_pipes;
extern record_of<int> closed_descriptors;
extern record_of<std::string> perror_texts;

} // namespace vemk::fake_libc

#endif
