#!/usr/bin/env bash
# Configures, builds and runs every test (C++ and JVM) in build/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build
ctest --test-dir build --output-on-failure -j2 "$@"
