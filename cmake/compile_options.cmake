# Warnings, hardening and sanitizers for everything that this project compiles.
# A toolchain for static programs, which no loader moves, sets this to OFF.
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
include(CheckPIESupported)
check_pie_supported()
# A compiler that only warns of a flag as unused does not have it either.
include(CheckCXXCompilerFlag)
set(CMAKE_REQUIRED_FLAGS -Werror)
check_cxx_compiler_flag(-fstack-clash-protection VEMK_HAS_STACK_CLASH_PROTECTION)
unset(CMAKE_REQUIRED_FLAGS)

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Wundef
  -Wcast-align -fstack-protector-strong)
if(VEMK_WERROR)
  add_compile_options(-Werror)
endif()
if(VEMK_HAS_STACK_CLASH_PROTECTION)
  add_compile_options(-fstack-clash-protection)
endif()
# _FORTIFY_SOURCE needs the optimiser, and the sanitizers intercept the same functions. This value
# replaces a toolchain's own, unless that one is behind -Wp: -Wp is read after all others.
if(NOT VEMK_SANITIZE AND NOT "${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "-Wp,[^ ]*_FORTIFY_SOURCE")
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()
# Compilers for MIPS ask for an executable stack by default.
add_link_options(-Wl,-z,relro,-z,now,-z,$<IF:$<BOOL:${VEMK_EXECUTABLE_STACK}>,execstack,noexecstack>)

# For the device: leave out unused code and unused libraries, and hide the program's symbols. MIPS
# would reach visible symbols through a table and list them by name.
if(CMAKE_BUILD_TYPE STREQUAL "MinSizeRel")
  add_compile_options(-ffunction-sections -fdata-sections -fvisibility=hidden
    $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>)
  add_link_options(-Wl,--gc-sections,--as-needed)
endif()

if(VEMK_SANITIZE)
  add_compile_options(-fsanitize=${VEMK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VEMK_SANITIZE})
endif()
if(VEMK_SANITIZE MATCHES "thread")
  add_library(tsan_suppressions OBJECT ${CMAKE_CURRENT_LIST_DIR}/tsan_suppressions.cpp)
  link_libraries(tsan_suppressions)
endif()

# vemk_compile_quickly(SOURCE ...): for files that include CLI11, a library of headers only. Their
# code runs once in a program, and its optimisation took more than half of their compile time.
function(vemk_compile_quickly)
  set_source_files_properties(${ARGN} PROPERTIES
    COMPILE_OPTIONS "$<$<CONFIG:RelWithDebInfo>:-Og;-fno-var-tracking>")
endfunction()
