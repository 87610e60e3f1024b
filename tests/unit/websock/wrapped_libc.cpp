#include "unit/websock/wrapped_libc.h"

#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>

namespace {

constexpr std::size_t no_limit = static_cast<std::size_t>(-1);

std::mutex state_lock;
std::deque<int> rand_values;
bool pipe_fails = false;
std::vector<int> pipes;
std::vector<std::string> perrors;
std::vector<int> closed;
std::atomic<std::size_t> refused_from{no_limit};
// This thread's last block, until it is freed.
thread_local void *last_calloc = nullptr;

using guard = std::lock_guard<std::mutex>;

} // namespace

extern "C" {

void *__real_realloc(void *block, std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
void __real_free(void *block);
int __real_pipe(int *ends);
int __real_close(int descriptor);

void *__wrap_realloc(void *block, std::size_t size) {
  return size >= refused_from ? nullptr : __real_realloc(block, size);
}

void *__wrap_calloc(std::size_t count, std::size_t size) {
  last_calloc = count * size >= refused_from ? nullptr : __real_calloc(count, size);
  return last_calloc;
}

void __wrap_free(void *block) {
  if (block == last_calloc)
    last_calloc = nullptr;
  __real_free(block);
}

int __wrap_rand() {
  const guard locked(state_lock);
  if (rand_values.empty())
    return 0;
  const int value = rand_values.front();
  rand_values.pop_front();
  return value;
}

int __wrap_pipe(int *ends) {
  const guard locked(state_lock);
  if (pipe_fails) {
    errno = EMFILE;
    return -1;
  }
  const int result = __real_pipe(ends);
  pipes.insert(pipes.end(), {ends[0], ends[1]});
  return result;
}

void __wrap_perror(const char *text) {
  const guard locked(state_lock);
  perrors.emplace_back(text);
}

int __wrap_close(int descriptor) {
  {
    const guard locked(state_lock);
    closed.push_back(descriptor);
  }
  return __real_close(descriptor);
}
}

namespace vemk::wrapped_libc {

void reset() {
  const guard locked(state_lock);
  rand_values.clear();
  pipe_fails = false;
  pipes.clear();
  perrors.clear();
  closed.clear();
  refused_from = no_limit;
}

void script_rand(const std::vector<int> &values) {
  const guard locked(state_lock);
  rand_values.assign(values.begin(), values.end());
}

void fail_pipe() {
  const guard locked(state_lock);
  pipe_fails = true;
}

std::vector<int> made_pipes() {
  const guard locked(state_lock);
  return pipes;
}

std::vector<std::string> perror_texts() {
  const guard locked(state_lock);
  return perrors;
}

std::vector<int> closed_descriptors() {
  const guard locked(state_lock);
  return closed;
}

bool last_calloc_was_freed() {
  return last_calloc == nullptr;
}

memory_shortage::memory_shortage(std::size_t smallest) {
  refused_from = smallest;
}

memory_shortage::~memory_shortage() {
  refused_from = no_limit;
}

} // namespace vemk::wrapped_libc
