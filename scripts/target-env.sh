#!/bin/bash
# Makes the environment in which vemk is built for, and run as, 32-bit little-endian MIPS.
# Usage: target-env.sh FOLDER
#
# FOLDER/bin gets the cross tools (mipsel-g++, mipsel-readelf ...) and qemu, which runs a program
# for MIPS; FOLDER/sysroot gets the target's libraries; FOLDER/versions.txt lists the packages.
# A folder that is complete and made from the same lists stays as it is.
#
# Everything is a Debian package, fetched and verified by apt but unpacked instead of installed:
# the machine's own package database and its list of architectures are not touched, because the
# -dev packages of two architectures cannot be installed beside each other. No root is needed.
set -euo pipefail

scripts=$(cd "$(dirname "$0")" && pwd)
readonly scripts
readonly target_list=$scripts/packages-mipsel.txt
readonly tool_packages=(g++-mipsel-linux-gnu qemu-user)
# Left out of the machine's package status, so that apt always fetches these and their own parts.
readonly tool_pattern='(mipsel|mipsen|qemu-user|libcapstone4|liburing2)'
readonly fetch_attempts=5

[ $# -eq 1 ] || {
  echo "usage: target-env.sh FOLDER" >&2
  exit 2
}
mkdir -p "$1"
folder=$(cd "$1" && pwd)
readonly folder sysroot=$folder/sysroot tools=$folder/tools
multiarch=$(gcc -print-multiarch)
readonly multiarch tool_libraries=$tools/usr/lib/$multiarch

# ---- apt with a state of its own ----

# Makes the view $1 of the package archive, for architecture $2, with the status on its input.
make_view() {
  local view=$folder/apt/$1
  mkdir -p "$view/lists/partial" "$view/archives/partial"
  cat >"$view/status"
  cat >"$view.conf" <<CONFIGURATION
APT::Architecture "$2";
#clear APT::Architectures;
APT::Architectures { "$2"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
APT::Keep-Downloaded-Packages "true";
Acquire::Languages "none";
Acquire::Retries "$fetch_attempts";
Dir::State "$view";
Dir::State::lists "$view/lists";
Dir::State::status "$view/status";
Dir::Cache "$view";
Dir::Cache::archives "$view/archives";
#clear APT::Update::Post-Invoke;
#clear DPkg::Post-Invoke;
CONFIGURATION
}

# Fetches packages, and what they depend on, with the view $1.
fetch() {
  local view=$1 attempt
  shift
  for ((attempt = 1; attempt <= fetch_attempts; attempt++)); do
    if APT_CONFIG=$folder/apt/$view.conf apt-get -qq update &&
      APT_CONFIG=$folder/apt/$view.conf \
        apt-get -qq -y --download-only install "$@" >"$folder/apt/$view.log"; then
      return
    fi
    sleep "$attempt"
  done
  echo "target-env: cannot fetch: $*" >&2
  echo "target-env: check that apt-get update works on this machine, then run this again" >&2
  return 1
}

fetch_packages() {
  local packages host_fetch
  make_view host "$(dpkg --print-architecture)" < <(
    awk -v "tool=^Package: [^\n]*$tool_pattern" 'BEGIN { RS = ""; ORS = "\n\n" } $0 !~ tool' \
      /var/lib/dpkg/status
  )
  make_view target mipsel </dev/null
  mapfile -t packages < <(sed 's/#.*//; /^ *$/d' "$target_list")
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

# Makes FOLDER/bin/$1, which runs $2 with the arguments $3 in front of its caller's.
make_command() {
  printf '#!/bin/sh\nLD_LIBRARY_PATH=%s exec %s %s "$@"\n' \
    "$tool_libraries" "$tools/usr/bin/$2" "$3" >"$folder/bin/$1"
  chmod +x "$folder/bin/$1"
}

make_commands() {
  local name
  mkdir -p "$folder/bin"
  for name in gcc g++; do
    make_command "mipsel-$name" "mipsel-linux-gnu-$name" "--sysroot=$sysroot"
  done
  for name in ar nm objdump ranlib readelf size strip; do
    make_command "mipsel-$name" "mipsel-linux-gnu-$name" ''
  done
  # The emulator needs the search path of its own libraries; the emulated program must not see it.
  make_command qemu qemu-mipsel "-U LD_LIBRARY_PATH -L $sysroot"
}

# ---- once for each version of the lists ----

wanted=$(cat "$0" "$target_list" <(echo "$folder") | sha256sum)
readonly wanted stamp=$folder/made-from
exec 9>"$folder/lock"
flock 9
if [ "$(cat "$stamp" 2>/dev/null)" = "$wanted" ]; then
  exit 0
fi

echo "target-env: making $folder"
rm -rf "$stamp" "${folder:?}"/{apt,bin,sysroot,tools}
fetch_packages
unpack_tools &
tools_unpacked=$!
unpack_sysroot
wait "$tools_unpacked"
make_commands
(cd "$folder/apt" && printf '%s\n' host/archives/*.deb target/archives/*.deb) \
  >"$folder/versions.txt"
rm -rf "$folder/apt"
echo "$wanted" >"$stamp"
