#include "timers/timer_service.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sys/select.h>
#include <unistd.h>

#include "log/log_module.h"

namespace vemk {

namespace {

log_module_t log_module;
const log_module_setup module_setup(log_module, "timers");

constexpr std::int32_t max_clock_step = 10;
constexpr int clock_check_tries = 11;
constexpr useconds_t poll_pause_us = 50000;
constexpr useconds_t wait_pause_us = 1000000;
constexpr std::int64_t longest_wait_ms = 3600000;

/// Seconds are signed 32-bit values for any width of time_t.
std::int32_t whole_seconds(const timespec &time) {
  return static_cast<std::int32_t>(time.tv_sec);
}

/// The sum in 32-bit arithmetic, which wraps round instead of overflowing.
std::int32_t seconds_after(std::int32_t now, std::int32_t delay) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(now) +
                                   static_cast<std::uint32_t>(delay));
}

bool is_plausible(std::int32_t now, std::int32_t last, std::int32_t expected_wait) {
  return last <= now && std::int64_t{now} <= std::int64_t{last} + expected_wait + max_clock_step;
}

} // namespace

timer_service::timer_service() : last_now{}, next_to_fire(timers.end()), expected_wait(0) {
  log_set_level(log_module, g_log_level);
  clock_gettime(CLOCK_MONOTONIC, &last_now);
}

std::int32_t timer_service::check_monotonic() {
  for (int attempt = 0; attempt < clock_check_tries; ++attempt) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (is_plausible(whole_seconds(now), whole_seconds(last_now), expected_wait)) {
      last_now = now;
      expected_wait = 0;
      return whole_seconds(now);
    }
    log_debug(log_module, "%s: Time error, need restart, expired [%u] [%u] cnt %d\n",
              "time_monotonic", static_cast<unsigned>(whole_seconds(now)),
              static_cast<unsigned>(whole_seconds(last_now)), attempt);
  }
  exit(-1);
}

timer_service::timer_list::iterator timer_service::add_timer(const std::function<void()> &callback,
                                                             std::uint32_t id, std::int32_t delay) {
  const std::int32_t expiry = seconds_after(check_monotonic(), delay);
  const auto later = std::find_if(timers.begin(), timers.end(), [expiry](const timer_entry &entry) {
    return entry.expiry > expiry;
  });
  return timers.insert(later, timer_entry{callback, id, expiry});
}

void timer_service::cancel_timers(std::uint32_t id) {
  for (auto entry = timers.begin(); entry != timers.end();) {
    if (entry->id != id) {
      ++entry;
      continue;
    }
    if (entry == next_to_fire)
      ++next_to_fire;
    entry = timers.erase(entry);
  }
}

void timer_service::run_expired() {
  fire_due(check_monotonic());
}

void timer_service::fire_due(std::int32_t now) {
  next_to_fire = timers.begin();
  while (next_to_fire != timers.end() && next_to_fire->expiry <= now) {
    const std::function<void()> callback = next_to_fire->callback;
    next_to_fire = timers.erase(next_to_fire);
    callback();
  }
}

std::int32_t
timer_service::delay_with_callback(std::int32_t seconds, const std::function<void()> &callback,
                                   const std::function<void(std::int32_t milliseconds)> &pause) {
  std::int32_t now = check_monotonic();
  const std::int32_t deadline = seconds_after(now, seconds);
  do {
    if (pause)
      pause(milliseconds_until(deadline));
    else
      usleep(poll_pause_us);
    callback();
    now = check_monotonic();
  } while (now < deadline);
  return now;
}

void timer_service::expect_wait(std::int32_t milliseconds) {
  expected_wait = (milliseconds + 999) / 1000;
}

std::int32_t timer_service::milliseconds_until(std::int32_t second) const {
  if (!timers.empty())
    second = std::min(second, timers.front().expiry);
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::int64_t left =
      (std::int64_t{second} - whole_seconds(now)) * 1000 - now.tv_nsec / 1000000;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(left, 0, longest_wait_ms));
}

std::int32_t timer_service::wait_while(const std::function<bool()> &predicate) {
  while (predicate()) {
    check_monotonic();
    usleep(wait_pause_us);
  }
  return 0;
}

void timer_service::wait_next() {
  const std::int32_t now = check_monotonic();
  const auto next = std::find_if(timers.begin(), timers.end(),
                                 [now](const timer_entry &entry) { return entry.expiry >= now; });
  if (next == timers.end())
    return;
  sleep_seconds(static_cast<std::uint32_t>(next->expiry) - static_cast<std::uint32_t>(now));
  fire_due(check_monotonic());
}

std::int32_t timer_service::sleep_seconds(std::uint32_t seconds) {
  // On Linux, the timeout then holds the time that an interrupted select did not sleep.
  timeval left{};
  left.tv_sec = static_cast<time_t>(seconds);
  while (select(0, nullptr, nullptr, nullptr, &left) < 0) {
    if (errno != EINTR)
      return errno;
  }
  return 0;
}

} // namespace vemk
