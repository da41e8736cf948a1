#!/usr/bin/env bash
# Installs the Debian packages the build needs when they are missing:
#   android-liblog-dev  the platform's liblog, linked as on the device
#   libmarisa-dev       the succinct-trie peer of the benchmarks
#   libidn2-dev         tpa import's conversion of Unicode names (UTS-46);
#                       the tool links it, the library does not
#   iptables, iproute2  the socket helpers' JVM tests: loopback up and a
#                       redirected connection in a private network namespace
#   pkgconf             the installed-package test's build without CMake
# Everything else (compilers, CMake, Ninja, GoogleTest, Google Benchmark,
# OpenJDK) is part of the machine image.
set -euo pipefail

# Packages are asked for by native architecture: once a foreign architecture's
# copy is installed too (cross builds), the bare name is ambiguous to dpkg.
arch=$(dpkg --print-architecture)
need=()
dpkg -s "android-liblog-dev:$arch" >/dev/null 2>&1 || need+=("android-liblog-dev:$arch")
dpkg -s "libmarisa-dev:$arch" >/dev/null 2>&1 || need+=("libmarisa-dev:$arch")
dpkg -s "libidn2-dev:$arch" >/dev/null 2>&1 || need+=("libidn2-dev:$arch")
command -v iptables >/dev/null 2>&1 || dpkg -s iptables >/dev/null 2>&1 || need+=(iptables)
command -v ip >/dev/null 2>&1 || dpkg -s iproute2 >/dev/null 2>&1 || need+=(iproute2)
command -v pkg-config >/dev/null 2>&1 || need+=(pkgconf)

[ ${#need[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null 2>&1 || { echo "bootstrap: need root to install: ${need[*]}" >&2; exit 1; }
  sudo=sudo
fi
echo "bootstrap: installing ${need[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
# A mirror caught mid-sync fails an index now and then (often a foreign
# architecture's); the install says whether what we need was fetched.
$sudo apt-get update -qq >/dev/null 2>&1 || echo "bootstrap: apt-get update incomplete" >&2
$sudo apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
