/// The message buffer: the unit of data that passes between the worker threads.
#ifndef VEMK_WORKER_BUFFER_INFO_H
#define VEMK_WORKER_BUFFER_INFO_H

#include <cstdint>

namespace vemk {

/// One whole message as a growable byte block that always ends in a NUL byte.
///
/// Invariant: `data` is null, or the allocation is exactly `length` + 1 bytes and the byte at
///   `length` is 0. So a message without NUL bytes of its own reads as a C string.
/// Threading: no lock. Filled by one thread before it is pushed to a queue, only read afterwards.
///   Handled through std::shared_ptr<buffer_info_t>, whose last holder may be on either thread.
/// Ownership: owns `data`, which comes from realloc or calloc and goes to free.
struct buffer_info_t {
  std::uint8_t *data;
  /// Bytes of the message, the trailing NUL not counted.
  std::uint32_t length;

  /// An empty buffer: no data, length 0.
  buffer_info_t();

  /// A copy of the bytes. When there is no memory for it the result is an empty buffer.
  buffer_info_t(const buffer_info_t &source);

  buffer_info_t &operator=(const buffer_info_t &) = delete;

  ~buffer_info_t();

  /// Adds `count` bytes of `source` at the end. Returns the whole data, which may have moved. If
  /// there is no memory, or the length would not fit 32 bits, it logs an error, leaves the buffer
  /// unchanged and returns null. Appending 0 bytes to an empty buffer makes an empty C string.
  std::uint8_t *append(const void *source, std::uint32_t count);

  /// Writes a listing of the buffer, hexadecimal beside characters, as one debug line. The listing
  /// is made before the category is tested, so it takes its time in any case. Without memory for
  /// it, nothing is written.
  void dump() const;
};

} // namespace vemk

#endif
