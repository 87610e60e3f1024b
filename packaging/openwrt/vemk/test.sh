#!/bin/sh
# Tests the installed package. Usage: test.sh PACKAGE VERSION
set -e
[ "$1" = vemk ] || exit 0
sh "$(dirname "$0")/test-version.sh" "$1" "$2"

# Without a configuration the daemon ends with status 0: it has been loaded, with all its libraries.
/usr/sbin/vemk

# As installed it names no service, so nothing is started, and the user is told why.
/etc/init.d/vemk start 2>&1 | grep -F 'vemk: not started: put roam_service_url='
