/// Locking under a test's control: one std::mutex at a time is watched.
///
/// A test program that links fake_mutex gets pthread_mutex_lock of its own code and the project's
/// counted for the watched mutex and, when told, refused with an error number.
#ifndef VEMK_TESTS_FAKE_MUTEX_H
#define VEMK_TESTS_FAKE_MUTEX_H

#include <mutex>

namespace vemk::fake_mutex {

/// Counts the locks of `mutex` from 0 and refuses none.
void watch(std::mutex &mutex);

/// Each lock of `mutex` fails with `error`, without taking it, until the next watch().
void refuse(std::mutex &mutex, int error);

/// How often the watched mutex was to be locked, refused attempts included.
int locks();

/// Whether another thread would have to wait for `mutex` right now.
bool is_held(std::mutex &mutex);

} // namespace vemk::fake_mutex

#endif
