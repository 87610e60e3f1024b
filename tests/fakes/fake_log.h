/// A log library that keeps its lines, in place of the platform's.
#ifndef VEMK_TESTS_FAKE_LOG_H
#define VEMK_TESTS_FAKE_LOG_H

#include <string>
#include <vector>

#include "fakes/fake_call.h"

namespace vemk::fake_log {

/// Whole lines without the timestamp, "|PID|module> message", since the last clear().
extern record_of<std::string> lines;

/// The messages alone, prefix removed, of one module.
std::vector<std::string> messages(const std::string &module);

/// What init_zandor_logrotate was called with, in order.
extern record_of<std::string> programs;

void clear();

} // namespace vemk::fake_log

#endif
