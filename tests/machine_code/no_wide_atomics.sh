#!/bin/sh
# Fails when the daemon calls an atomic operation on 64 bits. A 32-bit processor has none: such a
# call takes a lock of libatomic's, which the device need not have.
# Usage: no_wide_atomics.sh NM LIBRARY
set -eu

undefined=$("$1" -A --undefined-only "$2")
if [ -z "$undefined" ]; then
  echo "$2 names no symbols, so nothing was checked" >&2
  exit 1
fi
if printf '%s\n' "$undefined" | grep -E '__(atomic|sync)_'; then
  echo "use an atomic type of 32 bits or a lock instead of the above" >&2
  exit 1
fi
