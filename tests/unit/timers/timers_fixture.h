/// What the suites of the timers share: a service made at second 1000, the debug category on, and a
/// record of what it fires.
#ifndef VEMK_TESTS_UNIT_TIMERS_TIMERS_FIXTURE_H
#define VEMK_TESTS_UNIT_TIMERS_TIMERS_FIXTURE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"
#include "support/logging_test.h"
#include "timers/timer_service.h"

namespace vemk {

class TimersFixture : public LoggingTest {
protected:
  TimersFixture() : LoggingTest(0x08) {
    fake_libc::reset();
    service = std::make_unique<timer_service>();
  }

  std::function<void()> record(const std::string &text) {
    return [this, text] { fired.push_back(text); };
  }

  /// What the next run_expired() fires.
  std::vector<std::string> run() {
    fired.clear();
    service->run_expired();
    return fired;
  }

  std::vector<std::string> run_after(std::int64_t seconds) {
    fake_libc::advance_seconds(seconds);
    return run();
  }

  /// run_expired() while the clock reads these seconds.
  void run_with(const std::vector<std::int64_t> &readings) {
    fake_libc::script_readings(readings);
    service->run_expired();
  }

  std::unique_ptr<timer_service> service;
  std::vector<std::string> fired;
};

} // namespace vemk

#endif
