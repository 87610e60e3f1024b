#!/bin/bash
# Unpacks the packages of packages.txt's [unpacked], or of another section, which would enable
# services if installed.
# Usage: unpack-packages.sh FOLDER [SECTION]
#
# FOLDER/bin gets their programs, and FOLDER/root their files and those of dependencies that are not
# installed. FOLDER/versions.txt lists all these packages. Packages of the section are fetched even
# if they are installed. A folder stays as it is if it was made from the same section and its
# programs find their libraries.
set -euo pipefail

scripts=$(cd "$(dirname "$0")" && pwd)
readonly scripts
# shellcheck source-path=SCRIPTDIR
. "$scripts/unpacking.sh"

[ $# -eq 1 ] || [ $# -eq 2 ] || {
  echo "usage: unpack-packages.sh FOLDER [SECTION]" >&2
  exit 2
}
open_folder "$1" "${2:-unpacked}"
multiarch=$(gcc -print-multiarch)
readonly root=$folder/root archives=$folder/apt/host/archives
readonly libraries=$root/usr/lib/$multiarch:$root/lib/$multiarch

# The programs of the unpacked package $1, as paths below the root.
programs_of() {
  dpkg-deb --fsys-tarfile "$archives/$1"_*.deb | tar -t | sed -nE 's,^\./((usr/)?s?bin/.+)$,\1,p'
}

# Prints the libraries that the programs do not find. One of the machine's may have been removed
# since the folder was made.
missing_libraries() {
  local program
  while read -r program; do
    LD_LIBRARY_PATH=$libraries ldd "$program" 2>/dev/null | grep 'not found'
  done <"$folder/programs"
}

if is_complete && [ -z "$(missing_libraries)" ]; then
  exit 0
fi

echo "unpack-packages: making $folder"
rm -rf "${folder:?}"/{made-from,programs,apt,bin,root}
make_view host "$(dpkg --print-architecture)" </var/lib/dpkg/status
fetch host "${packages[@]}"
mkdir "$root"
for archive in "$archives"/*.deb; do
  dpkg-deb -x "$archive" "$root"
done
for package in "${packages[@]}"; do
  for program in $(programs_of "$package"); do
    make_command "${program##*/}" "$root/$program" "$libraries"
    echo "$root/$program" >>"$folder/programs"
  done
done
missing=$(missing_libraries || true)
[ -z "$missing" ] || {
  echo "unpack-packages: missing libraries: $missing" >&2
  exit 1
}
set_complete
