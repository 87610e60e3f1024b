/// What a start does to its process, recorded in order instead of done.
///
/// The test program's link wraps the libc calls and the project's functions that are named in the
/// events. The PID file's fixed path is redirected; the real one is never touched and no command is
/// ever run.
#ifndef VEMK_TESTS_UNIT_MAIN_FAKE_PROCESS_H
#define VEMK_TESTS_UNIT_MAIN_FAKE_PROCESS_H

#include <cstddef>
#include <string>
#include <vector>

#include "worker/message_queue.h"

namespace vemk::fake_process {

constexpr int own_pid = 4242;
constexpr int current_time = 1700000000;

/// Empty records; system() returns 0; the PID file stands in an empty folder.
void reset();

void record(const std::string &event);
std::vector<std::string> events();

/// The message queues that were constructed, in order. Each got a message whose release is an
/// event, "bus-to-service queue released" or "service-to-bus queue released".
std::vector<message_queue_t *> queues();

/// The construction of the `nth` queue, counted from 1, throws std::runtime_error.
void let_queue_construction_throw(std::size_t nth);

/// What system() returns from now on.
void set_system_result(int result);

/// Writes a file into the folder, whose reading is an event, and returns its path.
std::string write_file(const std::string &name, const std::string &text);

/// The redirected PID file; nothing stands at its path at first.
void write_pid_file(const std::string &text);
std::string pid_file();
std::string pid_file_path();

/// From now on the PID file can neither be read nor written.
void make_pid_file_unreachable();

} // namespace vemk::fake_process

#endif
