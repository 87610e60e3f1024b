#!/bin/bash
# Runs inside the system of test-package.sh: starts the unit's command, sends messages both ways.
set -euo pipefail

fail() { printf 'test-package: %s\n' "$*" >&2; exit 1; }

# Prints the status and always succeeds; the exit status would repeat the text.
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

# Runs the command of the unit's key $1 in this process. A shell splits the line as systemd does,
# except the prefix "-" and "$$", which means "$".
become() {
  local line
  line=$(sed -n "s/^$1=-\{0,1\}//p" /usr/lib/systemd/system/vemk.service | sed 's/\$\$/$/g')
  echo "$1: $line"
  eval "exec $line"
}

config=/etc/vemk/vemk.conf
out=$(mktemp -d)
if (become ExecCondition) 2>"$out/condition"; then
  fail "the unit starts with the configuration as it was installed"
fi
cat "$out/condition"
grep -q "put roam_service_url=ws://HOST:PORT/PATH into $config" "$out/condition" ||
  fail "nothing says what is missing"

sed -i 's/^#roam_service_url=/roam_service_url=/' "$config"
(become ExecCondition) || fail "the unit does not start with a URL"
(become ExecStartPre) || fail "vemkctl check-config finds fault with the installed configuration"
(become ExecStart) 2>"$out/vemk" &
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
