#!/bin/sh
# Prints the packages of the named sections of packages.txt, one a line.
# Usage: list-packages.sh SECTION ...
set -eu

list=$(dirname "$0")/packages.txt

[ $# -gt 0 ] || {
  echo "usage: ${0##*/} SECTION ..." >&2
  exit 2
}
for section in "$@"; do
  grep -qxF "[$section]" "$list" || {
    echo "${0##*/}: packages.txt has no section [$section]; it has" \
      "$(sed -n 's/^\(\[.*\]\)$/\1/p' "$list" | paste -sd ' ')" >&2
    exit 2
  }
done

awk -v wanted=" $* " '
  { sub(/#.*/, "") }
  /^\[/ { section = substr($1, 2, length($1) - 2); next }
  NF && index(wanted, " " section " ") { print $1 }
' "$list"
