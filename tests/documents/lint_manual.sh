#!/bin/sh
# Fails when mandoc has anything to say about a manual page.
# Usage: lint_manual.sh MANDOC PAGE
set -eu

# Pages that are not installed on this machine may well be referred to.
remarks=$("$1" -T lint -W style "$2" 2>/dev/null | grep -v 'referenced manual not found') || true
[ -z "$remarks" ] && exit
printf '%s\n' "$remarks"
exit 1
