#include "fakes/fake_mutex.h"

#include <atomic>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace {

std::atomic<pthread_mutex_t *> watched{nullptr};
std::atomic<int> refusal{0};
std::atomic<int> lock_count{0};

} // namespace

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t *mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
  if (mutex != watched)
    return __real_pthread_mutex_lock(mutex);
  ++lock_count;
  const int error = refusal;
  return error != 0 ? error : __real_pthread_mutex_lock(mutex);
}

#ifdef _LIBCPP_VERSION
void __wrap__ZNSt3__15mutex4lockEv(std::mutex *mutex) {
  const int error = __wrap_pthread_mutex_lock(mutex->native_handle());
  if (error != 0)
    throw std::system_error(error, std::system_category());
}
#endif
}

namespace vemk::fake_mutex {

void watch(std::mutex &mutex) {
  refuse(mutex, 0);
}

void refuse(std::mutex &mutex, int error) {
  refusal = error;
  lock_count = 0;
  watched = mutex.native_handle();
}

int locks() {
  return lock_count;
}

bool is_held(std::mutex &mutex) {
  bool held = false;
  std::thread other([&] {
    held = !mutex.try_lock();
    if (!held)
      mutex.unlock();
  });
  other.join();
  return held;
}

} // namespace vemk::fake_mutex
