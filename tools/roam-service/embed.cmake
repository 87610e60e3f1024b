# cmake -DOUTPUT=HEADER -DFILES="A;B" -P embed.cmake
# Writes a header in which each file stands as a std::string_view, console_NAME_EXTENSION.
set(content "#pragma once\n#include <string_view>\n\nnamespace vemk {\n")
foreach(file IN LISTS FILES)
  cmake_path(GET file FILENAME name)
  string(MAKE_C_IDENTIFIER "console_${name}" identifier)
  file(READ "${file}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR length "${digits} / 2")
  string(REGEX REPLACE "(..)" "\\\\x\\1" escaped "${hex}")
  # Lines of at most 32 bytes keep compilers and people content.
  string(REGEX REPLACE "(................................................................................................................................)"
         "\\1\"\n    \"" escaped "${escaped}")
  string(APPEND content "inline constexpr std::string_view ${identifier}{\n    \"${escaped}\",\n    ${length}};\n")
endforeach()
string(APPEND content "} // namespace vemk\n")
file(WRITE "${OUTPUT}" "${content}")
