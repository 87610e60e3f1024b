# 32-bit little-endian MIPS, with the tools and libraries that scripts/target-env.sh makes.
# VEMK_TARGET_ENV names their folder.
get_filename_component(checkout ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
set(VEMK_TARGET_ENV ${checkout}/build-mips-env CACHE PATH
    "The folder made by scripts/target-env.sh")
get_filename_component(target_env ${VEMK_TARGET_ENV} ABSOLUTE)
if(NOT EXISTS ${target_env}/made-from)
  message(FATAL_ERROR "${target_env} is no complete target environment; "
                      "make it with: scripts/target-env.sh ${target_env}")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_SYSROOT ${target_env}/sysroot)
set(CMAKE_LIBRARY_ARCHITECTURE mipsel-linux-gnu)
set(CMAKE_C_COMPILER ${target_env}/bin/mipsel-gcc)
set(CMAKE_CXX_COMPILER ${target_env}/bin/mipsel-g++)
foreach(tool ar nm objdump ranlib readelf strip)
  string(TOUPPER ${tool} variable)
  set(CMAKE_${variable} ${target_env}/bin/mipsel-${tool})
endforeach()
# Debian's mipsel needs release 2 of MIPS32 and a floating-point unit; this processor has both. Like
# a real one, it does not load a word from an address that is not a multiple of four.
set(CMAKE_CROSSCOMPILING_EMULATOR ${target_env}/bin/qemu -cpu 24Kf)

set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# CMake's own trial compilations read this file too.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEMK_TARGET_ENV)
