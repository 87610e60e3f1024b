#!/bin/bash
# Makes the environment in which vemk is built for, and run as, 32-bit little-endian MIPS.
# Usage: target-env.sh FOLDER
#
# FOLDER/bin gets the cross tools (mipsel-g++, mipsel-readelf ...) and qemu, which runs a program
# for MIPS; FOLDER/sysroot gets the target's libraries; FOLDER/versions.txt lists the packages.
# A folder that is complete and made from the same packages stays as it is.
#
# Everything is a Debian package, fetched and verified by apt but unpacked instead of installed:
# the machine's own package database and its list of architectures are not touched, because the
# -dev packages of two architectures cannot be installed beside each other. No root is needed.
set -euo pipefail

scripts=$(cd "$(dirname "$0")" && pwd)
readonly scripts
readonly tool_packages=(g++-mipsel-linux-gnu qemu-user)
# Left out of the machine's package status, so that apt always fetches these and their own parts.
readonly tool_pattern='(mipsel|mipsen|qemu-user|libcapstone4|liburing2)'
# shellcheck source-path=SCRIPTDIR
. "$scripts/unpacking.sh"

[ $# -eq 1 ] || {
  echo "usage: target-env.sh FOLDER" >&2
  exit 2
}
open_folder "$1" mipsel
if is_complete; then
  exit 0
fi
readonly sysroot=$folder/sysroot tools=$folder/tools
multiarch=$(gcc -print-multiarch)
readonly multiarch tool_libraries=$tools/usr/lib/$multiarch

# ---- the packages ----

fetch_packages() {
  local host_fetch
  make_view host "$(dpkg --print-architecture)" < <(
    awk -v "tool=^Package: [^\n]*$tool_pattern" 'BEGIN { RS = ""; ORS = "\n\n" } $0 !~ tool' \
      /var/lib/dpkg/status
  )
  make_view target mipsel </dev/null
  fetch host "${tool_packages[@]}" &
  host_fetch=$!
  fetch target "${packages[@]}"
  wait "$host_fetch"
}

# ---- the folder's parts ----

unpack_tools() {
  local archive
  mkdir -p "$tools"
  for archive in "$folder"/apt/host/archives/*.deb; do
    case "${archive##*/}" in
    # The sysroot has the C library; this one's linker scripts name absolute paths.
    libc6-* | linux-libc-dev-*) ;;
    *) dpkg-deb -x "$archive" "$tools" ;;
    esac
  done
}

unpack_sysroot() {
  local archive link
  # The dynamic linker's path, /lib/ld.so.1, must be found where /usr/lib's files are.
  mkdir -p "$sysroot/usr/lib"
  ln -s usr/lib "$sysroot/lib"
  for archive in "$folder"/apt/target/archives/*.deb; do
    dpkg-deb --fsys-tarfile "$archive" |
      tar -x --keep-directory-symlink --no-same-owner -C "$sysroot"
  done
  rm -rf "$sysroot"/usr/share/{bug,doc,gdb,info,lintian,locale,man}
  # An empty cache hides the machine's own, whose libraries are of the wrong architecture.
  rm -rf "${sysroot:?}/etc"
  mkdir "$sysroot/etc"
  : >"$sysroot/etc/ld.so.cache"
  # Absolute links would lead out of the sysroot.
  find "$sysroot" -type l -lname '/*' | while read -r link; do
    ln -sfnr "$sysroot$(readlink "$link")" "$link"
  done
}

make_commands() {
  local name
  for name in gcc g++; do
    make_command "mipsel-$name" "$tools/usr/bin/mipsel-linux-gnu-$name" "$tool_libraries" \
      "--sysroot=$sysroot"
  done
  for name in ar nm objdump ranlib readelf size strip; do
    make_command "mipsel-$name" "$tools/usr/bin/mipsel-linux-gnu-$name" "$tool_libraries"
  done
  # The emulator needs the search path of its own libraries; the emulated program must not see it.
  make_command qemu "$tools/usr/bin/qemu-mipsel" "$tool_libraries" "-U LD_LIBRARY_PATH -L $sysroot"
}

# ---- all of it ----

echo "target-env: making $folder"
rm -rf "${folder:?}"/{made-from,apt,bin,sysroot,tools}
fetch_packages
unpack_tools &
tools_unpacked=$!
unpack_sysroot
wait "$tools_unpacked"
make_commands
set_complete
