/// Symbols of the calls that take times, for those who replace them with --wrap.
///
/// A C library whose time_t has 64 bits on a 32-bit processor keeps the plain symbols for programs
/// with the old type; its headers let a call of clock_gettime refer to __clock_gettime64.
#ifndef VEMK_TESTS_FAKES_TIME64_H
#define VEMK_TESTS_FAKES_TIME64_H

#include <ctime>

#ifdef _REDIR_TIME64
#define __real_clock_gettime __real___clock_gettime64
#define __wrap_clock_gettime __wrap___clock_gettime64
#define __wrap_select __wrap___select_time64
#define __wrap_time __wrap___time64
#endif

#endif
