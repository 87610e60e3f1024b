/// What the calls of a stand-in begin with, and where they are kept.
#ifndef VEMK_TESTS_FAKES_FAKE_CALL_H
#define VEMK_TESTS_FAKES_FAKE_CALL_H

#include <mutex>
#include <utility>
#include <vector>

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

/// What a stand-in was called with, in order, from any thread. Called, it returns a copy.
template<typename entry_t>
class record_of {
public:
  std::vector<entry_t> operator()() const {
    const fake_call_guard<std::mutex> locked(mutex);
    return entries;
  }

  void add(entry_t entry) {
    const fake_call_guard<std::mutex> locked(mutex);
    entries.push_back(std::move(entry));
  }

  void clear() {
    const fake_call_guard<std::mutex> locked(mutex);
    entries.clear();
  }

private:
  mutable std::mutex mutex;
  std::vector<entry_t> entries;
};

} // namespace vemk

#endif
