#include "fakes/fake_memory.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::vector<std::size_t> asked_of_realloc;
thread_local std::vector<std::size_t> asked_of_calloc;
thread_local bool realloc_refuses = false;
thread_local bool calloc_refuses = false;
thread_local bool new_refuses = false;

} // namespace

extern "C" {

void *__real_realloc(void *block, std::size_t size);

void *__wrap_realloc(void *block, std::size_t size) {
  asked_of_realloc.push_back(size);
  return realloc_refuses ? nullptr : __real_realloc(block, size);
}

void *__real_calloc(std::size_t count, std::size_t size);

void *__wrap_calloc(std::size_t count, std::size_t size) {
  asked_of_calloc.push_back(count * size);
  return calloc_refuses ? nullptr : __real_calloc(count, size);
}
}

void *operator new(std::size_t size) {
  void *const block = new_refuses ? nullptr : malloc(size);
  if (block == nullptr)
    throw std::bad_alloc();
  return block;
}

void operator delete(void *block) noexcept {
  free(block);
}

void operator delete(void *block, std::size_t) noexcept {
  free(block);
}

namespace vemk::fake_memory {

void reset() {
  asked_of_realloc.clear();
  asked_of_calloc.clear();
  realloc_refuses = false;
  calloc_refuses = false;
}

std::vector<std::size_t> realloc_sizes() {
  return asked_of_realloc;
}

std::vector<std::size_t> calloc_sizes() {
  return asked_of_calloc;
}

void refuse_realloc() {
  realloc_refuses = true;
}

void refuse_calloc() {
  calloc_refuses = true;
}

refused_new::refused_new() {
  new_refuses = true;
}

refused_new::~refused_new() {
  new_refuses = false;
}

} // namespace vemk::fake_memory
