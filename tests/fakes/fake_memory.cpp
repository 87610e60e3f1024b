#include "fakes/fake_memory.h"

#include <cstdlib>
#include <new>

#include "fakes/fake_call.h"

namespace {

thread_local std::vector<std::size_t> asked_of_realloc;
thread_local std::vector<std::size_t> asked_of_calloc;
thread_local bool realloc_refuses = false;
thread_local bool calloc_refuses = false;
thread_local bool new_refuses = false;

thread_local bool numbering = false;
thread_local std::size_t requests = 0;
thread_local std::size_t refused_number = 0;
thread_local const char *refused_kind = "";
thread_local std::size_t refused_size = 0;

void keep(std::vector<std::size_t> &record, std::size_t size) {
  const vemk::own_memory of_the_record;
  record.push_back(size);
}

} // namespace

using vemk::fake_memory::refuses;

extern "C" {

void *__real_realloc(void *block, std::size_t size);

void *__wrap_realloc(void *block, std::size_t size) {
  keep(asked_of_realloc, size);
  return realloc_refuses || refuses("realloc", size) ? nullptr : __real_realloc(block, size);
}

void *__real_calloc(std::size_t count, std::size_t size);

void *__wrap_calloc(std::size_t count, std::size_t size) {
  keep(asked_of_calloc, count * size);
  return calloc_refuses || refuses("calloc", count * size) ? nullptr : __real_calloc(count, size);
}
}

void *operator new(std::size_t size) {
  void *const block = new_refuses || refuses("new", size) ? nullptr : malloc(size);
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
  refuse_request(0);
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

void refuse_request(std::size_t nth) {
  requests = 0;
  refused_number = nth;
  refused_kind = "";
  refused_size = 0;
}

numbered_requests::numbered_requests() {
  numbering = true;
}

numbered_requests::~numbered_requests() {
  numbering = false;
}

request_t refused_request() {
  return {refused_kind, refused_size};
}

bool refuses(const char *kind, std::size_t size) {
  if (!numbering || own_memory::is_asked_for() || ++requests != refused_number)
    return false;
  refused_kind = kind;
  refused_size = size;
  return true;
}

} // namespace vemk::fake_memory
