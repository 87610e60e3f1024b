#include "worker/abstract_worker.h"

#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>
#include <utility>

namespace vemk {

abstract_worker::abstract_worker(const bool *keep_running_flag, std::string worker_name,
                                 std::int32_t step_pause, std::int32_t restart_pause)
    : started(false), running(false), run_flag(keep_running_flag), name(std::move(worker_name)),
      step_pause_us(step_pause), restart_pause_us(restart_pause) {}

abstract_worker::~abstract_worker() = default;

void abstract_worker::start() {
  thread = std::thread(&abstract_worker::thread_main, this);
  started = true;
}

void abstract_worker::join() {
  if (started)
    thread.join();
}

void abstract_worker::thread_main() {
  prctl(PR_SET_NAME, name.c_str());
  for (;;) {
    running = init();
    run_steps();
    deinit();
    usleep(static_cast<useconds_t>(restart_pause_us));
    running = false;
  }
}

void abstract_worker::run_steps() {
  while (running) {
    if (!keep_running(run_flag))
      break;
    try {
      if (run_once() && step_pause_us > 0)
        pause_before_next_step();
    } catch (...) {
      printf("Unhandled exception at worker '%s'\n", name.c_str());
      exit(-1);
    }
  }
}

void abstract_worker::pause_before_next_step() {
  usleep(static_cast<useconds_t>(step_pause_us));
}

} // namespace vemk
