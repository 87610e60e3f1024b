/// A file descriptor with an owner.
#ifndef VEMK_MODULE_BUS_DESCRIPTOR_H
#define VEMK_MODULE_BUS_DESCRIPTOR_H

#include <utility>

#include <unistd.h>

namespace vemk {

/// Closes a descriptor at its end. One that could not be opened is -1.
class descriptor {
public:
  explicit descriptor(int opened) : number(opened) {}
  descriptor(descriptor &&other) noexcept : number(std::exchange(other.number, -1)) {}
  descriptor &operator=(descriptor &&) = delete;
  ~descriptor() {
    if (number >= 0)
      close(number);
  }

  int get() const { return number; }
  bool is_open() const { return number >= 0; }

private:
  int number;
};

} // namespace vemk

#endif
