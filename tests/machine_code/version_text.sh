#!/bin/sh
# Fails when a stripped program does not show its version as a line of strings(1), once. Nothing else
# tells which version a device has.
# Usage: version_text.sh STRIP PROGRAM TEXT
set -eu

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$1" -o "$stripped" "$2"
count=$(strings "$stripped" | grep -cxF "$3" || true)
if [ "$count" -ne 1 ]; then
  echo "'$3' stands $count times in $2, not once" >&2
  exit 1
fi
