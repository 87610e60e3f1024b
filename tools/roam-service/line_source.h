#ifndef VEMK_ROAM_SERVICE_LINE_SOURCE_H
#define VEMK_ROAM_SERVICE_LINE_SOURCE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace vemk {

/// Reads the lines of a descriptor on a thread of its own and keeps them until they are taken.
///
/// The line end is not part of a line; a last line without one counts. End of input is no event:
/// lines just stop coming. While lines of more than `most_waiting_bytes` wait to be taken, nothing
/// more is read.
///
/// Threading: take() from any thread; `on_lines` runs on the reading thread, without a lock held.
/// Ownership: the descriptor stays the caller's. The destructor stops the thread.
/// Errors: a line longer than `longest_line_bytes` is dropped with a note on standard error. Throws
///   std::system_error when the thread or its wake-up descriptor cannot be had.
class line_source {
public:
  static constexpr size_t longest_line_bytes = 256U * 1024 * 1024;
  static constexpr size_t most_waiting_bytes = 16U * 1024 * 1024;

  line_source(int input_descriptor, std::function<void()> on_lines);
  ~line_source();
  line_source(const line_source &) = delete;
  line_source &operator=(const line_source &) = delete;

  /// Returns the lines read since the last call, oldest first.
  std::deque<std::string> take();

private:
  void read_until_stopped();
  bool wait_for_input() const;
  bool wait_for_room();
  void accept_bytes(std::string_view bytes);
  void end_line();

  // constant after construction
  const int input;
  const std::function<void()> notify;
  const int stop_event;

  // the reading thread's
  std::string line;
  bool too_long = false;

  // shared, guarded by `mutex`
  std::mutex mutex;
  std::condition_variable taken;
  std::deque<std::string> lines;
  size_t waiting_bytes = 0;
  bool stopping = false;

  std::thread reader;
};

} // namespace vemk

#endif
