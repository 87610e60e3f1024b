/// What ends a thread's wait from another thread.
#ifndef VEMK_WORKER_WAKE_EVENT_H
#define VEMK_WORKER_WAKE_EVENT_H

#include <cstdint>

namespace vemk {

/// An event that one thread waits for. A signal that comes before the wait ends it at once.
///
/// Threading: signal() on any thread, wait() on one.
/// Ownership: owns an eventfd.
/// Errors: without a descriptor for it, the reason is written to standard error, and each wait ends
///   after 100 ms, like the pauses of workers that cannot be woken.
class wake_event {
public:
  wake_event();

  wake_event(const wake_event &) = delete;
  wake_event &operator=(const wake_event &) = delete;

  ~wake_event();

  /// Ends the wait, or the next one. Never blocks.
  void signal() const;

  /// Waits for a signal, for `readable_descriptor` unless it is negative, or for the time to pass,
  /// and takes the signal away. A caught Unix signal ends the wait as well. Returns whether
  /// `readable_descriptor` ended the wait.
  bool wait(std::int32_t milliseconds, int readable_descriptor = -1) const;

private:
  int descriptor;
};

} // namespace vemk

#endif
