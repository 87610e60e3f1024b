#!/bin/sh
# Looks for the version in the installed program. Usage: test-version.sh PACKAGE VERSION
#
# No option of the daemon prints the version: --version is a bad option and ends it with status 255.
[ "$1" = vemk ] || exit 0
strings /usr/sbin/vemk | grep -Fx "vemk $2"
