# Sourced by the scripts that fetch Debian packages with apt and unpack them into a folder, instead
# of installing them: the machine's package database stays as it is, and no root is needed.
# shellcheck shell=bash

readonly fetch_attempts=5

# Sets `folder` to the folder $1 and locks it for this process. Sets `packages` to those of the
# section $2. Sets `wanted` to a mark of the calling script, this one and `packages`.
open_folder() {
  local listed
  listed=$("$(dirname "${BASH_SOURCE[0]}")/list-packages.sh" "$2")
  mapfile -t packages <<<"$listed"
  mkdir -p "$1"
  folder=$(cd "$1" && pwd)
  wanted=$(cat "$0" "${BASH_SOURCE[0]}" <(printf '%s\n' "${packages[@]}" "$folder") | sha256sum)
  readonly packages folder wanted
  exec 9>"$folder/lock"
  flock 9
}

is_complete() { [ "$(cat "$folder/made-from" 2>/dev/null)" = "$wanted" ]; }

set_complete() {
  (cd "$folder/apt" && printf '%s\n' */archives/*.deb) >"$folder/versions.txt"
  rm -rf "$folder/apt"
  echo "$wanted" >"$folder/made-from"
}

# Makes the view $1 of the package archive, for architecture $2, with the status on its input.
make_view() {
  local view=$folder/apt/$1
  mkdir -p "$view/lists/partial" "$view/archives/partial"
  cat >"$view/status"
  cat >"$view.conf" <<CONFIGURATION
APT::Architecture "$2";
#clear APT::Architectures;
APT::Architectures { "$2"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
APT::Keep-Downloaded-Packages "true";
Acquire::Languages "none";
Acquire::Retries "$fetch_attempts";
Dir::State "$view";
Dir::State::lists "$view/lists";
Dir::State::status "$view/status";
Dir::Cache "$view";
Dir::Cache::archives "$view/archives";
#clear APT::Update::Post-Invoke;
#clear DPkg::Post-Invoke;
CONFIGURATION
}

# apt-get with the view $1.
view_apt() { APT_CONFIG=$folder/apt/$1.conf apt-get -qq "${@:2}"; }

# Fetches packages into the archives of the view $1, with the dependencies that its status lacks.
fetch() {
  local view=$1 attempt
  shift
  for ((attempt = 1; attempt <= fetch_attempts; attempt++)); do
    if view_apt "$view" update && (cd "$folder/apt/$view/archives" && view_apt "$view" download "$@") &&
      view_apt "$view" -y --allow-change-held-packages --download-only install "$@" \
        >"$folder/apt/$view.log"; then
      return
    fi
    sleep "$attempt"
  done
  echo "${0##*/}: cannot fetch: $*" >&2
  echo "${0##*/}: check that apt-get update works on this machine, then run this again" >&2
  return 1
}

# Makes FOLDER/bin/$1, which runs $2 with the libraries in $3 and the arguments $4 in front of its
# caller's.
make_command() {
  mkdir -p "$folder/bin"
  printf '#!/bin/sh\nLD_LIBRARY_PATH=%s exec %s %s "$@"\n' "$3" "$2" "${4-}" >"$folder/bin/$1"
  chmod +x "$folder/bin/$1"
}
