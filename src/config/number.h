/// Numbers in configuration texts, with the same result on 32-bit and 64-bit machines.
#ifndef VEMK_CONFIG_NUMBER_H
#define VEMK_CONFIG_NUMBER_H

#include <cstdint>

namespace vemk {

/// What strtoul gives where long has 32 bits: blanks and a sign are skipped, reading stops at the
/// first character that is no digit of the base, no digits give 0, too large a number gives the
/// largest one.
std::uint32_t unsigned_number(const char *text, int base);

/// What atoi gives where long has 32 bits; a number out of range gives the nearest one.
std::int32_t signed_number(const char *text);

} // namespace vemk

#endif
