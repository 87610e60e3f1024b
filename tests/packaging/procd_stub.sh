#!/bin/sh
# Stands in for the shell library of a system with procd: reads an init script, does an action of it
# as rc.common would, and prints what it asks procd for, one call a line.
# Usage: procd_stub.sh INIT_SCRIPT ACTION UCI_FILE
initscript=$1
action=$2
uci_file=$3

record() { printf '%s\n' "$*"; }
procd_open_instance() { record open_instance "$@"; }
procd_set_param() { record "$@"; }
procd_append_param() { record append "$@"; }
procd_close_instance() { record close_instance; }
procd_add_reload_trigger() { record reload_trigger "$@"; }
procd_add_jail() { record jail "$@"; }
procd_add_jail_mount() { record mount "$@"; }
procd_add_jail_mount_rw() { record mount_rw "$@"; }

# The values of a file with one section, one a line.
uci_values() { sed -n "s/^[[:space:]]*$1 $2 '\(.*\)'\$/\1/p" "$uci_file"; }
config_load() { [ "$1" = vemk ]; }
config_get() { uci_value=$(uci_values option "$3"); eval "$1=\${uci_value:-\$4}"; }
config_get_bool() { config_get "$@"; }
config_list_foreach() {
  for uci_value in $(uci_values list "$2"); do "$3" "$uci_value"; done
}

# What rc.common does with procd's actions where the script says nothing else.
service_triggers() { :; }
rc_procd() { record begin; "$@"; service_triggers; record end; }
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
