#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds and runs the outside
# program against it.   check_package.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$1" --prefix "$work/prefix" >/dev/null
if grep -rn 'android/log.h' "$work/prefix/include"; then
  echo "installed headers need the platform's log header"; exit 1
fi
cmake -S "$here" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/outside"
