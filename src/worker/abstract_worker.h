/// The base of the daemon's worker threads.
#ifndef VEMK_WORKER_ABSTRACT_WORKER_H
#define VEMK_WORKER_ABSTRACT_WORKER_H

#include <cstdint>
#include <string>
#include <thread>

#include "timers/timer_service.h"

namespace vemk {

/// One thread that runs a loop for ever: set up, work in small steps while allowed, tear down,
/// pause, set up again. Derived classes implement the four operations.
///
/// The order of the virtual operations and of the members is fixed.
///
/// Threading: construction, start(), join() and destruction on the owner's thread; the four
///   operations, `running` and `timers` only on the worker's own. `*run_flag` is read without
///   synchronisation, so it is set before start().
/// Ownership: owns the thread; `run_flag` is the caller's and outlives the worker.
/// Errors: an exception out of run_once() ends the process with status 255 after "Unhandled
///   exception at worker '%s'\n" on standard output. One out of another operation ends the process
///   through std::terminate.
class abstract_worker {
public:
  static constexpr std::int32_t usual_step_pause_us = 100000;
  static constexpr std::int32_t usual_restart_pause_us = 300000;

  /// `worker_name` also names the thread, cut to the kernel's 15 characters. With a step pause of 0
  /// or less the worker does not pause.
  abstract_worker(const bool *keep_running_flag, std::string worker_name,
                  std::int32_t step_pause = usual_step_pause_us,
                  std::int32_t restart_pause = usual_restart_pause_us);

  abstract_worker(const abstract_worker &) = delete;
  abstract_worker &operator=(const abstract_worker &) = delete;

  /// Acquires the resources of the steps. True when ready for steps; false leads to deinit(), a
  /// pause and another try.
  virtual bool init() = 0;

  /// Does one bounded unit of work. True asks for a pause before the next one.
  virtual bool run_once() = 0;

  /// Releases the resources of init(). Called after every step loop, also when init() returned
  /// false.
  virtual void deinit() = 0;

  /// Tested with `run_flag` before every step; false ends the step loop.
  virtual bool keep_running(const bool *flag) = 0;

  /// A worker that was started must have been joined, or the process terminates.
  virtual ~abstract_worker();

  /// Passes the time until the next step, after a step that asked for a pause. Sleeps
  /// `step_pause_us`.
  virtual void pause_before_next_step();

  /// Creates the thread. A second start while it runs terminates the process.
  void start();

  /// Waits for the thread's end if start() was called. The loop has no end of its own.
  void join();

protected:
  bool started;
  /// Result of the last init(); a step may clear it to force a restart.
  bool running;
  std::thread thread;
  const bool *run_flag;
  std::string name;
  timer_service timers;
  std::int32_t step_pause_us;
  std::int32_t restart_pause_us;

private:
  void thread_main();
  void run_steps();
};

} // namespace vemk

#endif
