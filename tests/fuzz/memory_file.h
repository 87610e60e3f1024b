/// A file in memory that can be opened by name.
#ifndef VEMK_TESTS_FUZZ_MEMORY_FILE_H
#define VEMK_TESTS_FUZZ_MEMORY_FILE_H

#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/expect.h"

namespace vemk::fuzz {

/// Exists until the process ends.
class memory_file {
public:
  memory_file()
      : descriptor(memfd_create("vemk.conf", MFD_CLOEXEC)),
        file_name("/proc/self/fd/" + std::to_string(descriptor)) {}

  const char *name() const { return file_name.c_str(); }

  /// Replaces what the file holds.
  void write(const std::string &bytes) {
    const bool is_written =
        ftruncate(descriptor, 0) == 0 &&
        pwrite(descriptor, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
    expect_equal("whether the file could be written", true, is_written);
  }

private:
  int descriptor;
  std::string file_name;
};

} // namespace vemk::fuzz

#endif
