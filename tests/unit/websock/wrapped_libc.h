/// The libc calls of the WebSocket worker, beyond clock and sleep, under a test's control.
#ifndef VEMK_TESTS_UNIT_WEBSOCK_WRAPPED_LIBC_H
#define VEMK_TESTS_UNIT_WEBSOCK_WRAPPED_LIBC_H

#include <cstddef>
#include <string>
#include <vector>

namespace vemk::wrapped_libc {

/// Everything works again; rand returns 0; empty records.
void reset();

/// What the next calls of rand return; 0 when they are used up.
void script_rand(const std::vector<int> &values);

/// pipe fails with EMFILE.
void fail_pipe();
/// The descriptors that pipe made, in order.
std::vector<int> made_pipes();
/// What perror was called with.
std::vector<std::string> perror_texts();
/// The descriptors that were closed, in order.
std::vector<int> closed_descriptors();

/// Whether this thread's last block of calloc has gone to free.
bool last_calloc_was_freed();

/// While one exists, realloc and calloc have no memory for `smallest` bytes or more.
class memory_shortage {
public:
  explicit memory_shortage(std::size_t smallest);
  ~memory_shortage();
  memory_shortage(const memory_shortage &) = delete;
  memory_shortage &operator=(const memory_shortage &) = delete;
};

} // namespace vemk::wrapped_libc

#endif
