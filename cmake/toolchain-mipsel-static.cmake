# Fully static programs for 32-bit little-endian MIPS without FPU, run under emulation of the
# device's kind of processor. scripts/static-env.sh makes the environment; VEMK_STATIC_ENV names its
# folder.
set(VEMK_STATIC_ENV ${CMAKE_CURRENT_LIST_DIR}/../build-static-env CACHE PATH
    "The folder made by scripts/static-env.sh")
get_filename_component(static_env ${VEMK_STATIC_ENV} ABSOLUTE)
if(NOT EXISTS ${static_env}/stamps/compiler)
  message(FATAL_ERROR "${static_env} is no static build environment; "
                      "make it with: scripts/static-env.sh ${static_env}")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER ${static_env}/bin/mipsel-cc)
set(CMAKE_CXX_COMPILER ${static_env}/bin/mipsel-c++)
set(CMAKE_AR ${static_env}/bin/mipsel-ar)
set(CMAKE_RANLIB ${static_env}/bin/mipsel-ranlib)
set(CMAKE_CROSSCOMPILING_EMULATOR ${static_env}/bin/qemu-mipsel -cpu 24Kc)

# Unoptimised code, configure checks included, would be compiled with checks of undefined behaviour.
set(CMAKE_C_FLAGS_INIT "-Os -ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_INIT "-Os -ffunction-sections -fdata-sections")
# The driver asks for thread stacks of 8 MiB; other programs for musl get 128 KiB.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,--gc-sections,-z,stack-size=131072 -s")
set(CMAKE_POSITION_INDEPENDENT_CODE OFF)

set(CMAKE_FIND_ROOT_PATH ${static_env}/prefix)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${static_env}/prefix/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# CMake's own trial compilations read this file too.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEMK_STATIC_ENV)
