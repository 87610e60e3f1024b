#!/bin/sh
# Installs the packages of sections of packages.txt that this machine does not have yet.
# Usage: install-packages.sh SECTION ...
set -eu

packages=$("$(dirname "$0")/list-packages.sh" "$@")
missing=
for package in $packages; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) || status=
  [ "$status" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -eq 0 ]; then
  as_root=
elif command -v sudo >/dev/null; then
  as_root=sudo
else
  echo "install-packages: these packages are missing:$missing" >&2
  echo "install-packages: run again as root, or install sudo" >&2
  exit 1
fi

echo "Installing:$missing"
# DPKG_FRONTEND settings go through env, because sudo drops the caller's environment.
$as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq update
# shellcheck disable=SC2086  # the shell must split the list
$as_root env DEBIAN_FRONTEND=noninteractive \
  apt-get -qq -y -o Dpkg::Use-Pty=0 --no-install-recommends install $missing >/dev/null
