#!/usr/bin/env bash
# Cross-builds the library, the tpa tool and the C++ tests for the phones'
# ARM architectures and runs the tests under qemu-user:
#   scripts/cross.sh [aarch64|armhf|all]   (default all)
# aarch64  64-bit ARM (arm64-v8a), in build-aarch64/
# armhf    32-bit ARM (armeabi-v7a: 32-bit long and pointers), in build-armhf/
# Installs what is missing from Debian: the cross compilers, qemu-user, and
# the target's liblog, GoogleTest, libidn2 (the tool's import) and C++
# runtime from the multiarch archive (adding the arm64 and armhf
# architectures to dpkg). Release build without debug information, no JNI,
# benchmarks or fuzzers; tests labelled slow are skipped under emulation.
set -euo pipefail
cd "$(dirname "$0")/.."

which=${1:-all}
case $which in
  aarch64) arches=(aarch64) ;;
  armhf) arches=(armhf) ;;
  all) arches=(aarch64 armhf) ;;
  *) echo "usage: $0 [aarch64|armhf|all]" >&2; exit 2 ;;
esac

debian_arch() { [ "$1" = aarch64 ] && echo arm64 || echo armhf; }
triplet() { [ "$1" = aarch64 ] && echo aarch64-linux-gnu || echo arm-linux-gnueabihf; }

install_missing() {
  local need=() foreign=() a d
  command -v qemu-aarch64 >/dev/null 2>&1 && command -v qemu-arm >/dev/null 2>&1 || need+=(qemu-user)
  for a in "${arches[@]}"; do
    d=$(debian_arch "$a")
    command -v "$(triplet "$a")-g++" >/dev/null 2>&1 || need+=("g++-$(triplet "$a")")
    dpkg --print-foreign-architectures | grep -qx "$d" || foreign+=("$d")
    for p in android-liblog-dev libgtest-dev libgmock-dev libidn2-dev libstdc++6; do
      dpkg -s "$p:$d" >/dev/null 2>&1 || need+=("$p:$d")
    done
  done
  [ ${#need[@]} -eq 0 ] && return 0
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null 2>&1 || { echo "cross: need root to install: ${need[*]}" >&2; exit 1; }
    sudo=sudo
  fi
  echo "cross: installing ${need[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  for d in "${foreign[@]}"; do $sudo dpkg --add-architecture "$d"; done
  # A mirror caught mid-sync fails an index now and then: try again, then go
  # on with what was fetched (the install says if something is missing).
  local try
  for try in 1 2 3; do
    $sudo apt-get update -qq 2>&1 | grep -q '^E:' || break
    echo "cross: apt-get update incomplete (try $try)" >&2
    sleep $((try * 5))
  done
  $sudo apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
}

install_missing

for a in "${arches[@]}"; do
  dir=build-$a
  start=$SECONDS
  cmake -S . -B "$dir" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/$(triplet "$a").cmake" \
    -DCMAKE_BUILD_TYPE=Release \
    -DTPA_BUILD_JNI=OFF -DTPA_BUILD_BENCHMARKS=OFF -DTPA_BUILD_FUZZERS=OFF >/dev/null
  cmake --build "$dir" -j2
  ctest --test-dir "$dir" --output-on-failure -j2 -LE slow
  echo "cross: $a built and tested in $((SECONDS - start)) s" >&2
done
