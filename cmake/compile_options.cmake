# Warnings, hardening and sanitizers for everything that this project compiles.
# A toolchain for static programs, which no loader moves, says that it wants it OFF.
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
include(CheckPIESupported)
check_pie_supported()

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Wundef
  -Wcast-align -fstack-protector-strong)
if(VEMK_WERROR)
  add_compile_options(-Werror)
endif()
# _FORTIFY_SOURCE needs the optimiser, and the sanitizers intercept the same functions.
if(NOT VEMK_SANITIZE)
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()
add_link_options(-Wl,-z,relro,-z,now)

# For the device: what nothing refers to is left out, and no library is named that is not used.
add_compile_options($<$<CONFIG:MinSizeRel>:-ffunction-sections> $<$<CONFIG:MinSizeRel>:-fdata-sections>)
add_link_options($<$<CONFIG:MinSizeRel>:-Wl,--gc-sections,--as-needed>)

if(VEMK_SANITIZE)
  add_compile_options(-fsanitize=${VEMK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VEMK_SANITIZE})
endif()
