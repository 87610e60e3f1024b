/// A worker on its own thread, which the base never ends.
#ifndef VEMK_TESTS_SUPPORT_WORKER_THREAD_H
#define VEMK_TESTS_SUPPORT_WORKER_THREAD_H

#include <cstdint>
#include <functional>
#include <pthread.h>

#include "fakes/fake_libc.h"
#include "worker/abstract_worker.h"

namespace vemk {

constexpr std::int64_t step_pause_us = 100000;
constexpr std::int64_t restart_pause_us = 300000;

/// Runs the worker's thread and ends it in restart pause number `restarts`. `at_sleep` is called
/// in every sleep.
inline void run_until_restart(
    abstract_worker &worker, int restarts,
    const std::function<void(std::int64_t)> &at_sleep = [](std::int64_t) {}) {
  fake_libc::on_sleep([&](std::int64_t sleep_us) {
    at_sleep(sleep_us);
    if (sleep_us == restart_pause_us && --restarts == 0)
      pthread_exit(nullptr);
  });
  worker.start();
  worker.join();
  fake_libc::on_sleep(nullptr);
}

} // namespace vemk

#endif
