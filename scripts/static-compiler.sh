#!/bin/bash
# Compiles and links for the static MIPS build: 32-bit little-endian, no FPU, musl and libc++.
# static-env.sh installs it as bin/mipsel-cc and bin/mipsel-c++ of the environment.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
language=${0##*mipsel-}
export ZIG_LIB_DIR=$root/toolchain/lib
export ZIG_GLOBAL_CACHE_DIR=$root/cache ZIG_LOCAL_CACHE_DIR=$root/cache
zig=$root/toolchain/zig/bin/zig
# The driver's rules for nullability differ from those of musl's headers.
driver=("$zig" "$language" -target mipsel-linux-musleabi -mcpu=mips32r2
  -Wno-nullability-completeness)

wraps=()
project_inputs=()
others=()
for argument; do
  case $argument in
    -Wl,--wrap=*) IFS=, read -ra more <<<"${argument#-Wl,}" && wraps+=("${more[@]}") ;;
    */libgtest*.a | */libgmock*.a) project_inputs+=("$argument") ;;
    /*) others+=("$argument") ;;
    *.o | *.a) project_inputs+=("$argument") ;;
    *) others+=("$argument") ;;
  esac
done
[ ${#wraps[@]} -gt 0 ] || exec "${driver[@]}" "$@"

# The driver refuses --wrap, so a separate link of the project's objects and GoogleTest wraps the
# calls. The other libraries keep their real calls, as shared libraries do.
wrapped=$(mktemp --suffix=.o)
trap 'rm -f "$wrapped"' EXIT
"$zig" ld.lld -r -m elf32ltsmip -u main "${wraps[@]}" "${project_inputs[@]}" -o "$wrapped"
"${driver[@]}" "$wrapped" "${others[@]}"
