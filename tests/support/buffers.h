/// Message buffers and queues as plain texts.
#ifndef VEMK_TESTS_SUPPORT_BUFFERS_H
#define VEMK_TESTS_SUPPORT_BUFFERS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "worker/buffer_info.h"
#include "worker/message_queue.h"

namespace vemk {

inline std::string text_of(const buffer_info_t &buffer) {
  return buffer.length == 0
             ? std::string()
             : std::string(reinterpret_cast<const char *>(buffer.data), buffer.length);
}

inline std::shared_ptr<buffer_info_t> buffer_of(const std::string &text) {
  auto buffer = std::make_shared<buffer_info_t>();
  buffer->append(text.data(), static_cast<std::uint32_t>(text.size()));
  return buffer;
}

inline std::vector<std::string> take_all(message_queue_t &queue) {
  std::vector<std::string> texts;
  while (const auto buffer = queue.try_pop())
    texts.push_back(text_of(*buffer));
  return texts;
}

} // namespace vemk

#endif
