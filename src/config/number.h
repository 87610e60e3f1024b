/// Numbers in configuration texts, with the same result on 32-bit and 64-bit machines.
#ifndef VEMK_CONFIG_NUMBER_H
#define VEMK_CONFIG_NUMBER_H

#include <cstdint>

namespace vemk {

/// The result of strtoul where long has 32 bits. Blanks and a sign are skipped; reading stops at
/// the first character that is not a digit of the base. Without digits the result is 0; a number
/// that is too large gives the largest one.
std::uint32_t unsigned_number(const char *text, int base);

/// The result of atoi where long has 32 bits; a number out of range gives the nearest one.
std::int32_t signed_number(const char *text);

} // namespace vemk

#endif
