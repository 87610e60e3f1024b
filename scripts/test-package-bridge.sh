#!/bin/bash
# Run inside the system of test-package.sh: starts what the unit starts, and uses the bridge.
set -euo pipefail

fail() { printf 'test-package: %s\n' "$*" >&2; exit 1; }

# Prints the status and always succeeds; the command's exit status says the same.
status() { vemkctl status || true; }

wait_for_status() {
  local deadline=$((SECONDS + 60))
  until [ "$(status)" = "$1" ]; do
    [ $SECONDS -lt $deadline ] || fail "the status did not become $1"
    sleep 0.2
  done
  echo "vemkctl status: $1"
}

wait_for_line() {
  local deadline=$((SECONDS + 20))
  until grep -q "$1" "$2"; do
    [ $SECONDS -lt $deadline ] || fail "no line '$1' in $2: $(cat "$2")"
    sleep 0.1
  done
}

out=$(mktemp -d)
exec_start=$(sed -n 's/^ExecStart=//p' /usr/lib/systemd/system/vemk.service)
echo "ExecStart: $exec_start"
# The line is split as systemd does; it has no quotes.
# shellcheck disable=SC2086
$exec_start 2>"$out/vemk" &
daemon=$!
wait_for_status disconnected

roam-service >"$out/service" </dev/null &
service=$!
wait_for_status connected
vemkctl send 'hello from the package'
wait_for_line 'hello from the package' "$out/service"
echo "the service received: hello from the package"

kill -TERM $daemon
wait $daemon && fail "the daemon ended with status 0 at SIGTERM"
kill -TERM $service
wait $service || true
rm -r "$out"
