// Which processor the tests ran on, so that a run for the target shows that it was one.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/utsname.h>

#include <gtest/gtest.h>

namespace vemk {
namespace {

#if defined(__mips__)
constexpr char built_for[] = "mips";
#elif defined(__x86_64__)
constexpr char built_for[] = "x86_64";
#elif defined(__aarch64__)
constexpr char built_for[] = "aarch64";
#endif

// The system names the processor that the compiler built for, and numbers are little-endian.
TEST(ProcessorTest, IsTheOneTheTestsWereBuiltFor) {
  utsname system{};
  ASSERT_EQ(uname(&system), 0);
  const std::uint32_t number = 0x01020304;
  std::uint8_t first_byte = 0;
  std::memcpy(&first_byte, &number, sizeof first_byte);

  std::printf("processor: %s, %zu bits, %s-endian; time_t of %zu bytes\n", system.machine,
              8 * sizeof(void *), first_byte == 0x04 ? "little" : "big", sizeof(time_t));
  EXPECT_EQ(std::string(system.machine), built_for);
  EXPECT_EQ(first_byte, 0x04) << "the bus's records and the stand-ins are little-endian";
}

} // namespace
} // namespace vemk
