#!/bin/sh
# Tests the installed package. Usage: test.sh PACKAGE VERSION
set -e
[ "$1" = vemk ] || exit 0
sh "$(dirname "$0")/test-version.sh" "$1" "$2"

# Without a configuration the daemon ends with status 0: the program and all its libraries were
# loaded.
/usr/sbin/vemk

# The installed configuration names no service, so the daemon is not started, and a message says
# why.
/etc/init.d/vemk start 2>&1 | grep -F 'vemk: not started: put roam_service_url='
