#!/usr/bin/env bash
# Installs the build into a temporary prefix, moves the prefix elsewhere, and
# builds and runs the outside program against the moved copy twice: through
# CMake's package and through pkg-config with the compiler alone.
#   check_package.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$1" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$work/prefix"
if grep -rn 'android/log.h' "$work/prefix/include"; then
  echo "installed headers need the platform's log header"; exit 1
fi
cmake -S "$here" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/outside"

pc=$(find "$work/prefix" -name tpa.pc)
flags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs tpa)
case "$flags" in *"$work/prefix/"*) ;; *) echo "tpa.pc does not follow the moved prefix: $flags"; exit 1 ;; esac
# shellcheck disable=SC2086  # the flags are words
${CXX:-c++} -std=c++17 -Wall -Werror "$here/outside.cc" -o "$work/outside-pc" $flags
libdir=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable=libdir tpa)
LD_LIBRARY_PATH="$libdir" "$work/outside-pc"
