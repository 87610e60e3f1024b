#include "config/number.h"

#include <gtest/gtest.h>

namespace vemk {

namespace {

template<typename number>
struct case_t {
  const char *text;
  number expected;
};

} // namespace

// Numbers beyond 32 bits are 4294967295, "-1" as well; no digits are 0; base 10 and 16.
TEST(NumberTest, UnsignedNumbersAreThoseOfA32BitStrtoul) {
  constexpr case_t<std::uint32_t> decimal[] = {
      {"", 0},
      {"\n", 0},
      {"abc", 0},
      {"-", 0},
      {"0", 0},
      {"30\r\n", 30},
      {"5 6", 5},
      {"1.9", 1},
      {" \t12", 12},
      {"+5", 5},
      {"010", 10},
      {"0x10", 0},
      {"4294967294", 4294967294u},
      {"4294967295", 4294967295u},
      {"4294967296", 4294967295u},
      {"9223372036854775807", 4294967295u},
      {"9223372036854775808", 4294967295u},
      {"18446744073709551616", 4294967295u},
      {"99999999999999999999999999", 4294967295u},
      {"-1", 4294967295u},
      {"-2", 4294967294u},
      {"-4294967295", 1},
      {"-4294967296", 4294967295u},
      {"-99999999999999999999999999", 4294967295u},
  };
  for (const auto &[text, expected] : decimal)
    EXPECT_EQ(expected, unsigned_number(text, 10)) << '"' << text << '"';
  constexpr case_t<std::uint32_t> hexadecimal[] = {
      {"F", 15},
      {"0f", 15},
      {"g", 0},
      {"0x8", 8},
      {"FFFFFFFF", 4294967295u},
      {"100000000", 4294967295u},
      {"-1", 4294967295u},
  };
  for (const auto &[text, expected] : hexadecimal)
    EXPECT_EQ(expected, unsigned_number(text, 16)) << '"' << text << '"';
}

// Numbers beyond 32 bits are 2147483647 or -2147483648; no digits are 0.
TEST(NumberTest, SignedNumbersAreThoseOfA32BitAtoi) {
  constexpr case_t<std::int32_t> cases[] = {
      {"", 0},
      {"abc", 0},
      {"0", 0},
      {"8080\n", 8080},
      {"80abc", 80},
      {" 80", 80},
      {"+80", 80},
      {"-80", -80},
      {"0x50", 0},
      {"65536", 65536},
      {"2147483647", 2147483647},
      {"2147483648", 2147483647},
      {"4294967376", 2147483647},
      {"99999999999999999999999999", 2147483647},
      {"-2147483648", -2147483647 - 1},
      {"-2147483649", -2147483647 - 1},
      {"-99999999999999999999999999", -2147483647 - 1},
  };
  for (const auto &[text, expected] : cases)
    EXPECT_EQ(expected, signed_number(text)) << '"' << text << '"';
}

} // namespace vemk
