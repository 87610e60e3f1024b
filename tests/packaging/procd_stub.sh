#!/bin/sh
# Stands in for the shell library of a system with procd: reads an init script, does an action of it
# as rc.common would, and prints what it asks procd for, one call a line.
# Usage: procd_stub.sh INIT_SCRIPT ACTION
initscript=$1
action=$2

record() { printf '%s\n' "$*"; }
procd_open_instance() { record open_instance "$@"; }
procd_set_param() { record "$@"; }
procd_append_param() { record append "$@"; }
procd_close_instance() { record close_instance; }
procd_add_reload_trigger() { record reload_trigger "$@"; }

# What rc.common does with procd's actions where the script says nothing else.
rc_procd() { record begin; "$@"; record end; }
start() { rc_procd start_service; }
stop() { record kill; }
reload() {
  if type reload_service >/dev/null 2>&1; then
    reload_service
  else
    start
  fi
}
restart() { stop; start; }

# shellcheck source=/dev/null
. "$initscript"

# "enable" makes these links.
enable() { record "S${START}vemk K${STOP}vemk"; }
[ "$USE_PROCD" = 1 ] || { record "the script does not use procd"; exit 1; }
"$action"
