#!/bin/bash
# Shows the bridge at work: a roaming service, a listener on the bus and the daemon between them.
# Usage: demo.sh [BUILD_FOLDER]    (default: build)
#
# With a terminal on standard input, or VEMK_DEMO_STAY=1, the demonstration stays up until Ctrl-C.
#
# The daemon replaces an earlier instance by the PID in /tmp. Here it gets a /tmp of its own, so it
# does not stop another vemk on this machine.
set -euo pipefail

readonly pid_file=/tmp/vemk.roaming.pid
readonly step_limit_s=8
readonly log_tail_lines=25

fail() {
  printf 'demo: %s\n' "$*" >&2
  exit 1
}

# ---- the place to run in ----

# Prints the options with which unshare can make a mount namespace here.
namespace_options() {
  local options
  for options in -m -rm; do
    if unshare "$options" true 2>/dev/null; then
      echo "$options"
      return
    fi
  done
  return 1
}

# Goes on in a mount namespace of its own if one can be made.
enter_namespace() {
  local options
  [ -z "${VEMK_DEMO_NAMESPACE:-}" ] || return 0
  if options=$(namespace_options); then
    VEMK_DEMO_NAMESPACE=own exec unshare "$options" "$BASH" "$0" "$@"
  fi
  VEMK_DEMO_NAMESPACE=none
}

# Keeps a folder below /tmp reachable in the new /tmp, which is made in $1.
keep_in_private_tmp() {
  local place
  case "$2" in
  /tmp/*)
    place=$1/${2#/tmp/}
    mkdir -p "$place" && mount -n --rbind "$2" "$place"
    ;;
  esac
}

# Puts an empty file system over /tmp, in this namespace only.
make_private_tmp() {
  local new_tmp=$work/tmp
  [ "$VEMK_DEMO_NAMESPACE" = own ] || return 1
  {
    mkdir "$new_tmp" &&
      mount -n -t tmpfs -o mode=1777,size=16m vemk-demo "$new_tmp" &&
      keep_in_private_tmp "$new_tmp" "$checkout" &&
      keep_in_private_tmp "$new_tmp" "$build" &&
      mount -n --move "$new_tmp" /tmp &&
      cd "$checkout"
  } 2>>"$work/namespace.log"
}

# Without a /tmp of its own the daemon must not meet another one.
refuse_to_replace_a_daemon() {
  local other
  [ -e "$pid_file" ] || return 0
  other=$(tr -dc 0-9 <"$pid_file") || fail "cannot read $pid_file; remove it or run this as root"
  if [ -n "$other" ] && [ -d "/proc/$other" ]; then
    fail "process $other stands in $pid_file and the daemon would stop it;" \
      "stop it yourself, or run this as root"
  fi
}

# Prints a new folder that is not below /tmp, so that other terminals see it too.
make_work_folder() {
  local parent
  for parent in /var/tmp /dev/shm; do
    parent=$(realpath -e "$parent" 2>/dev/null) || continue
    case "$parent/" in /tmp/*) continue ;; esac
    mktemp -d "$parent/vemk-demo.XXXXXX" 2>/dev/null && return
  done
  return 1
}

# ---- what was started ----

started=()

is_running() {
  kill -0 "$1" 2>/dev/null
}

stop_process() {
  local tries
  kill -TERM "$1" 2>/dev/null || true
  for ((tries = 0; tries < 40; tries++)); do
    is_running "$1" || break
    sleep 0.05
  done
  kill -KILL "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}

clean_up() {
  local index
  trap - EXIT
  trap '' INT TERM HUP
  for ((index = ${#started[@]} - 1; index >= 0; index--)); do
    stop_process "${started[index]}"
  done
  # The daemon leaves its PID file. A later one would stop the process that then has the PID.
  if [ -n "${daemon:-}" ] && [ "$(cat "$pid_file" 2>/dev/null)" = "$daemon" ]; then
    rm -f "$pid_file"
  fi
  rm -rf "$work"
}

# ---- looking on ----

heading() {
  printf '\n%s%s%s\n' "$bold" "$1" "$plain"
}

item() {
  printf '   %-18s%s\n' "$1" "$2"
}

# Fails the demonstration: $1 was not seen.
not_seen() {
  printf '\ndemo: FAILED: %s\n' "$1" >&2
  local log
  for log in listener service vemk; do
    [ -s "$work/$log.log" ] || continue
    printf '\nThe last lines of %s.log:\n' "$log" >&2
    tail -n "$log_tail_lines" "$work/$log.log" | cut -c1-200 | sed 's/^/   /' >&2
  done
  exit 1
}

# Waits for a line with the text $3 in the file $1 after its line number $2, and leaves the line in
# `line` and its number in `line_number`. $4 describes the line in the error message.
wait_for_line() {
  local deadline=$((SECONDS + step_limit_s)) found pid
  while true; do
    if found=$(tail -n "+$(($2 + 1))" "$1" 2>/dev/null | grep -m 1 -n -F -e "$3"); then
      line_number=$(($2 + ${found%%:*}))
      line=${found#*:}
      return
    fi
    for pid in "${started[@]}"; do
      is_running "$pid" || not_seen "$4: one of the programs has ended"
    done
    ((SECONDS < deadline)) || not_seen "$4 within $step_limit_s seconds"
    sleep 0.05
  done
}

# ---- the demonstration ----

start_service() {
  mkfifo "$work/to-service"
  # Open for both directions, so that neither side waits for the other, nor sees an end of file.
  exec 3<>"$work/to-service"
  : >"$work/from-service"
  local options=(--port 0)
  if [ "$stays" = yes ]; then
    options+=(--console)
  fi
  "$build/roam-service" "${options[@]}" <"$work/to-service" >"$work/from-service" \
    2>"$work/service.log" 3>&- &
  started+=($!)
  wait_for_line "$work/from-service" 0 'listening on' 'the start of roam-service was not seen'
  url=${line##* }
  service_line=$line_number
  console=''
  if [ "$stays" = yes ]; then
    wait_for_line "$work/from-service" "$service_line" 'console at' 'the console was not seen'
    console=${line##* }
    service_line=$line_number
  fi
}

start_listener() {
  mkdir -m 700 "$MODULE_BUS_DIR"
  "$build/vemkctl" listen >"$work/from-bus" 2>"$work/listener.log" </dev/null 3>&- &
  started+=($!)
  bus_line=0
}

start_daemon() {
  printf '%s\n' "roam_service_url=$url" initial_connection_delay=1 max_connection_delay=4 \
    ap_location=demonstration log_level=0x0f "pacing=$1" >"$work/vemk.conf"
  "$build/vemk" -f "$work/vemk.conf" >>"$work/vemk.log" 2>&1 </dev/null 3>&- &
  daemon=$!
  started+=("$daemon")
}

show_status_messages() {
  local state
  heading '1. The daemon tells the bus how its connection is'
  for state in disconnected connected; do
    wait_for_line "$work/from-bus" "$bus_line" "\"cmd\": \"$state\"" \
      "the daemon's \"$state\" status message was not seen on the bus"
    bus_line=$line_number
    item 'on the bus:' "$line"
  done
}

show_bus_to_service() {
  local text='hello from a module on the bus'
  heading '2. A module on the bus sends a message, and the service receives it'
  item 'module:' "vemkctl send '$text'"
  "$build/vemkctl" send "$text" || not_seen 'vemkctl could not send the message'
  wait_for_line "$work/from-service" "$service_line" "$text" \
    "the bus's message was not seen by the service"
  service_line=$line_number
  item 'service received:' "$line"
}

show_service_to_bus() {
  local text='hello from the roaming service'
  heading '3. The service sends a message, and the bus receives it'
  item 'service sends:' "$text"
  printf '%s\n' "$text" >&3
  wait_for_line "$work/from-bus" "$bus_line" "$text" "the service's message was not seen on the bus"
  bus_line=$line_number
  item 'on the bus:' "$line"
}

show_status_request() {
  local state
  heading '4. A module asks how the connection is'
  item 'module:' 'vemkctl status'
  state=$("$build/vemkctl" status) || not_seen "the answer \"connected\" was not seen (\"$state\")"
  wait_for_line "$work/from-bus" "$bus_line" '"cmd": "connected"' \
    'the answer to the status request was not seen on the bus'
  bus_line=$line_number
  item 'on the bus:' "$line"
  item 'answer:' "$state"
}

# Prints the milliseconds from the service to the bus, the median of five messages.
message_time() {
  local deadline=$((SECONDS + step_limit_s)) times=() text begin end arrived
  exec 4<"$work/from-bus"
  for text in {1..5}; do
    text="timed message $text, pacing=$1"
    begin=${EPOCHREALTIME//[!0-9]/}
    printf '%s\n' "$text" >&3
    until IFS= read -r arrived <&4 && [[ $arrived == *"$text"* ]]; do
      ((SECONDS < deadline)) || not_seen "a message's time with pacing=$1"
    done
    end=${EPOCHREALTIME//[!0-9]/}
    times+=($((end - begin)))
    # So that the next one meets the daemon at another moment of its step.
    sleep 0.13
  done
  exec 4<&-
  printf '%s\n' "${times[@]}" | sort -n | awk 'NR == 3 { printf "%.1f ms\n", $1 / 1000 }'
}

show_times() {
  local time
  heading '5. How long a message takes from the service to the bus'
  time=$(message_time steps) || exit 1
  item 'pacing=steps:' "$time"
  stop_process "$daemon"
  unset 'started[-1]'
  bus_line=$(wc -l <"$work/from-bus")
  start_daemon event
  wait_for_line "$work/from-bus" "$bus_line" '"cmd": "connected"' \
    'the connection with pacing=event was not seen'
  bus_line=$line_number
  time=$(message_time event) || exit 1
  item 'pacing=event:' "$time"
}

# Prints the lines that are added to the file $1 from its line $2 on, each after the label $3.
follow() {
  tail -n "+$2" -f "$1" 2>/dev/null > >(sed -u "s/^/   $3/") 3>&- &
  started+=($!)
}

stay() {
  local command="$build/vemkctl --bus $MODULE_BUS_DIR" typed status stop=no
  heading 'It stays up until Ctrl-C. In a browser:'
  printf '   %s\n' "$console"
  heading 'In another terminal:'
  printf '   %s\n' "$command send 'to the service'" "$command listen" "$command status" \
    "tail -f $work/vemk.log"
  heading 'A line typed here is sent by the service. What arrives is shown here:'
  follow "$work/from-bus" $((bus_line + 1)) 'on the bus:       '
  follow "$work/from-service" $((service_line + 1)) 'service received: '
  # Only sets a variable: bash crashes when a trap exits while `read -t` waits for the terminal.
  trap 'stop=yes' INT TERM HUP
  while is_running "$daemon"; do
    status=0
    IFS= read -r -t 0.5 typed || status=$?
    if [ "$stop" = yes ]; then
      printf '\n'
      return
    elif ((status == 0)); then
      printf '%s\n' "$typed" >&3
    elif ((status <= 128)) && [ -t 0 ]; then
      return # Ctrl-D
    elif ((status <= 128)); then
      sleep 0.5
    fi
  done
  not_seen 'the daemon has ended'
}

enter_namespace "$@"
checkout=$(realpath "$(dirname "$0")/..")
build=$(realpath -m "${1:-build}")
for program in vemk vemkctl roam-service; do
  [ -x "$build/$program" ] || fail "$build/$program is missing; run 'make build' first"
done
bold='' plain=''
if [ -t 1 ]; then
  bold=$'\033[1m' plain=$'\033[0m'
fi

work=$(make_work_folder) || fail 'cannot make a folder in /var/tmp or /dev/shm; make room there'
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
export MODULE_BUS_DIR=$work/bus
unset ZANDOR_LOG_FILE TMPDIR

if make_private_tmp; then
  where='in a mount namespace of its own'
else
  where='without a mount namespace of its own, which cannot be made here'
  refuse_to_replace_a_daemon
fi

stays=no
if [ -t 0 ] || [ "${VEMK_DEMO_STAY:-}" = 1 ]; then
  stays=yes
fi
start_service
start_listener
start_daemon steps
printf '%svemk, the bridge between the module bus and a roaming service%s\n\n' "$bold" "$plain"
item 'roaming service:' "$url"
[ -z "$console" ] || item 'console:' "$console"
item 'module bus:' "$MODULE_BUS_DIR"
item 'daemon:' "process $daemon, $where"
show_status_messages
show_bus_to_service
show_service_to_bus
show_status_request
show_times
heading 'All five steps were seen.'
if [ "$stays" = yes ]; then
  stay
fi
