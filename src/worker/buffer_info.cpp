#include "worker/buffer_info.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "worker/buffer_log.h"

namespace vemk {

log_module_t buffer_log_module;

namespace {

const log_module_setup module_setup(buffer_log_module, "buffer-info");

// Part of a fixed message text, not the number of a source line.
constexpr int append_failure_line = 95;

// A message and its NUL byte must fit the target's 32-bit size_t.
constexpr std::uint32_t largest_block = std::numeric_limits<std::uint32_t>::max();

} // namespace

buffer_info_t::buffer_info_t() : data(nullptr), length(0) {
  log_set_level(buffer_log_module, g_log_level);
}

buffer_info_t::buffer_info_t(const buffer_info_t &source) : buffer_info_t() {
  if (source.length >= largest_block)
    return;
  data = static_cast<std::uint8_t *>(calloc(1, std::size_t{source.length} + 1));
  if (data == nullptr)
    return;
  length = source.length;
  if (length > 0)
    memcpy(data, source.data, length);
}

buffer_info_t::~buffer_info_t() {
  free(data);
  data = nullptr;
  length = 0;
}

std::uint8_t *buffer_info_t::append(const void *source, std::uint32_t count) {
  const std::uint64_t needed = std::uint64_t{length} + count + 1;
  void *grown = nullptr;
  if (needed <= largest_block)
    grown = realloc(data, static_cast<std::size_t>(needed));
  if (grown == nullptr) {
    log_error(buffer_log_module, "%s:%d Can't alloc memory\n", "append", append_failure_line);
    return nullptr;
  }

  data = static_cast<std::uint8_t *>(grown);
  if (count > 0)
    memcpy(data + length, source, count);
  length += count;
  data[length] = 0;
  return data;
}

} // namespace vemk
