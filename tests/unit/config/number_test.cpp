#include "config/number.h"

#include <gtest/gtest.h>

namespace vemk {

namespace {

struct unsigned_case_t {
  const char *text;
  int base;
  std::uint32_t number;
};

struct signed_case_t {
  const char *text;
  std::int32_t number;
};

} // namespace

// Numbers beyond 32 bits are 4294967295, "-1" as well; no digits are 0; base 10 and 16.
TEST(NumberTest, UnsignedNumbersAreThoseOfA32BitStrtoul) {
  constexpr unsigned_case_t cases[] = {
      {"", 10, 0},
      {"\n", 10, 0},
      {"abc", 10, 0},
      {"-", 10, 0},
      {"0", 10, 0},
      {"30\r\n", 10, 30},
      {"5 6", 10, 5},
      {"1.9", 10, 1},
      {" \t12", 10, 12},
      {"+5", 10, 5},
      {"010", 10, 10},
      {"0x10", 10, 0},
      {"4294967294", 10, 4294967294u},
      {"4294967295", 10, 4294967295u},
      {"4294967296", 10, 4294967295u},
      {"9223372036854775807", 10, 4294967295u},
      {"9223372036854775808", 10, 4294967295u},
      {"18446744073709551616", 10, 4294967295u},
      {"99999999999999999999999999", 10, 4294967295u},
      {"-1", 10, 4294967295u},
      {"-2", 10, 4294967294u},
      {"-4294967295", 10, 1},
      {"-4294967296", 10, 4294967295u},
      {"-99999999999999999999999999", 10, 4294967295u},
      {"F", 16, 15},
      {"0f", 16, 15},
      {"g", 16, 0},
      {"0x8", 16, 8},
      {"FFFFFFFF", 16, 4294967295u},
      {"100000000", 16, 4294967295u},
      {"-1", 16, 4294967295u},
  };
  for (const unsigned_case_t &expected : cases)
    EXPECT_EQ(expected.number, unsigned_number(expected.text, expected.base))
        << '"' << expected.text << "\" in base " << expected.base;
}

// Numbers beyond 32 bits are 2147483647 or -2147483648; no digits are 0.
TEST(NumberTest, SignedNumbersAreThoseOfA32BitAtoi) {
  constexpr signed_case_t cases[] = {
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
  for (const signed_case_t &expected : cases)
    EXPECT_EQ(expected.number, signed_number(expected.text)) << '"' << expected.text << '"';
}

} // namespace vemk
