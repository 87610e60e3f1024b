/// One-shot timers and the check of the monotonic clock.
#ifndef VEMK_TIMERS_TIMER_SERVICE_H
#define VEMK_TIMERS_TIMER_SERVICE_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <list>

namespace vemk {

struct timer_entry {
  std::function<void()> callback;
  /// The caller's tag; several timers may share one.
  std::uint32_t id;
  /// The second of the monotonic clock at which the timer becomes due.
  std::int32_t expiry;
};

/// One-shot timers in whole seconds of CLOCK_MONOTONIC, and waits that keep working.
///
/// Every reading of the clock is compared with the last good one. After a step backward, or forward
/// by more than 10 seconds, the clock is read again at once. After 11 bad readings in a row the
/// process ends with exit(-1), and its supervisor starts it again. So from construction on, an
/// operation that reads the clock must be called at least every 10 seconds. cancel_timers() and
/// sleep_seconds() do not read it.
///
/// wait_while(), wait_next() and sleep_seconds() are by design without a use.
///
/// Threading: none of its own; everything, callbacks included, runs on the thread that calls. Not
///   thread-safe.
/// Ownership: keeps a copy of each callback until it fires or is cancelled.
/// Errors: an empty callback throws std::bad_function_call when it is due, after its removal. Lack
///   of memory for an entry throws std::bad_alloc and leaves the list as it was.
class timer_service {
public:
  using timer_list = std::list<timer_entry>;

  /// Takes the current time as good.
  timer_service();

  timer_service(const timer_service &) = delete;
  timer_service &operator=(const timer_service &) = delete;

  /// Adds a timer that is due `delay` seconds from now, behind those due in the same second.
  /// Returns its position in the list.
  timer_list::iterator add_timer(const std::function<void()> &callback, std::uint32_t id,
                                 std::int32_t delay);

  /// Removes every timer with this id, unfired.
  void cancel_timers(std::uint32_t id);

  /// Fires the timers that are due, each after its removal, so that it may add and cancel timers.
  void run_expired();

  /// Calls `callback` every 50 ms, at least once, until `seconds` have passed. Returns the second
  /// of the monotonic clock at which it ended. With a `pause`, that one passes up to so many
  /// milliseconds in place of the 50.
  std::int32_t
  delay_with_callback(std::int32_t seconds, const std::function<void()> &callback,
                      const std::function<void(std::int32_t milliseconds)> &pause = nullptr);

  /// Sleeps in steps of one second while `predicate` returns true. Returns 0.
  std::int32_t wait_while(const std::function<bool()> &predicate);

  /// Sleeps until the first timer that is not overdue is due, then fires the timers that are due.
  /// Returns at once when there is no such timer. With a timer more than 10 seconds ahead, the
  /// check of the clock after the sleep ends the process.
  void wait_next();

  /// Sleeps `seconds`, also when signals arrive. Returns 0 or the error number of select.
  static std::int32_t sleep_seconds(std::uint32_t seconds);

  /// Announces that up to `milliseconds` pass before the clock is read again. A wait that was asked
  /// for is not a jump, so the next check of the clock allows 10 seconds beyond it.
  void expect_wait(std::int32_t milliseconds);

  /// Milliseconds until the first timer is due, or until `second` of the monotonic clock if that
  /// comes earlier. 0 when one of them is due.
  std::int32_t milliseconds_until(std::int32_t second) const;

private:
  /// Returns the checked current second and keeps it as the last good time.
  std::int32_t check_monotonic();

  void fire_due(std::int32_t now);

  /// Ascending by expiry; equal ones in the order in which they were added.
  timer_list timers;
  timespec last_now;
  /// The next timer of a walk over the due ones; kept valid while callbacks cancel timers.
  timer_list::iterator next_to_fire;
  /// Seconds that may pass before the next check, on top of its 10.
  std::int32_t expected_wait;
};

} // namespace vemk

#endif
