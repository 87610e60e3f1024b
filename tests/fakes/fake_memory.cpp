#include "fakes/fake_memory.h"

#include <cstdlib>
#include <new>

#include "fakes/fake_call.h"

namespace {

constexpr std::size_t no_limit = static_cast<std::size_t>(-1);

thread_local std::vector<std::size_t> asked_of_realloc;
thread_local std::vector<std::size_t> asked_of_calloc;
thread_local std::size_t refused_from = no_limit;
thread_local const void *watched = nullptr;
thread_local bool watches_next_calloc = false;
thread_local int watched_frees = 0;
thread_local bool new_refuses = false;

thread_local bool numbering = false;
thread_local std::size_t requests = 0;
thread_local std::size_t refused_number = 0;
thread_local const char *refused_kind = "";
thread_local std::size_t refused_size = 0;

/// Records a request and says whether it is refused.
bool refuses_block(const char *kind, std::vector<std::size_t> &record, std::size_t size) {
  {
    const vemk::own_memory of_the_record;
    record.push_back(size);
  }
  return size >= refused_from || vemk::fake_memory::refuses(kind, size);
}

} // namespace

extern "C" {

void *__real_realloc(void *block, std::size_t size);

void *__wrap_realloc(void *block, std::size_t size) {
  return refuses_block("realloc", asked_of_realloc, size) ? nullptr : __real_realloc(block, size);
}

void *__real_calloc(std::size_t count, std::size_t size);

void *__wrap_calloc(std::size_t count, std::size_t size) {
  if (refuses_block("calloc", asked_of_calloc, count * size))
    return nullptr;
  void *const block = __real_calloc(count, size);
  if (watches_next_calloc)
    vemk::fake_memory::watch(block);
  return block;
}

void __real_free(void *block);

// Weak, because fake_bus has one of its own: its records do not begin where their blocks do.
__attribute__((weak)) void __wrap_free(void *block) {
  if (block != nullptr && block == watched)
    ++watched_frees;
  __real_free(block);
}
}

// Both, because AddressSanitizer has its own of each, whose blocks operator delete must not free.
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
  return new_refuses || vemk::fake_memory::refuses("new", size) ? nullptr : malloc(size);
}

void *operator new(std::size_t size) {
  void *const block = operator new(size, std::nothrow);
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
  refuse_request(0);
}

std::vector<std::size_t> realloc_sizes() {
  return asked_of_realloc;
}

std::vector<std::size_t> calloc_sizes() {
  return asked_of_calloc;
}

shortage::shortage(std::size_t smallest) {
  refused_from = smallest;
}

shortage::~shortage() {
  refused_from = no_limit;
}

void watch(const void *block) {
  watched = block;
  watches_next_calloc = false;
  watched_frees = 0;
}

void watch_next_calloc() {
  watch(nullptr);
  watches_next_calloc = true;
}

int frees_of_watched() {
  return watched_frees;
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
