#!/bin/bash
# Runs clang-tidy and cppcheck over the programs' sources; any finding fails.
# Usage: analyze.sh BUILD_FOLDER    (configured with clang, for its compile commands)
set -euo pipefail
cd "$(dirname "$0")/.."

build=$1
sources="^$PWD/(src|platform|tools|bench)/"

run-clang-tidy -quiet -p "$build" -j "$(nproc)" "$sources" 2>&1 |
  sed -E '/^clang-tidy-|^[0-9]+ warnings? generated|^Suppressed [0-9]+ warnings|^Use -header-filter/d'

# useStlAlgorithm is a question of style only.
cppcheck --quiet --error-exitcode=1 --inline-suppr --std=c++17 -j "$(nproc)" \
  --enable=warning,performance,portability,style --suppress=useStlAlgorithm \
  -I src -I platform/include -I platform/host -I tools \
  src platform tools bench
echo "analyze: nothing found"
