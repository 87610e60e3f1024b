#!/bin/sh
# Puts the Node bridge of bench/peers and npm's packages for it into a folder.
# Usage: install-node-bridge.sh FOLDER
set -eu

peers=$(dirname "$0")/../bench/peers
command -v npm >/dev/null || {
  echo "install-node-bridge: npm is missing; install it and run again" >&2
  exit 1
}
mkdir -p "$1"
cp "$peers/node_bridge.js" "$peers/package.json" "$1"
if ! cmp -s "$peers/package.json" "$1/made-from"; then
  npm --prefix "$1" install --ignore-scripts --no-audit --no-fund --silent
  cp "$peers/package.json" "$1/made-from"
fi
