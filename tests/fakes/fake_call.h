/// What the calls of a stand-in begin with.
#ifndef VEMK_TESTS_FAKES_FAKE_CALL_H
#define VEMK_TESTS_FAKES_FAKE_CALL_H

#include <mutex>

namespace vemk {

/// While one exists, memory that this thread asks for is the stand-in's own, for its records:
/// fake_memory does not number it as a request of the daemon's.
class own_memory {
public:
  own_memory() { ++depth; }
  own_memory(const own_memory &) = delete;
  own_memory &operator=(const own_memory &) = delete;
  ~own_memory() { --depth; }

  static bool is_asked_for() { return depth > 0; }

private:
  static inline thread_local int depth = 0;
};

/// Locks a stand-in's state for as long as it exists.
template<typename mutex_t>
class fake_call_guard {
public:
  explicit fake_call_guard(mutex_t &mutex) : lock(mutex) {}

private:
  own_memory memory;
  std::lock_guard<mutex_t> lock;
};

} // namespace vemk

#endif
