#!/usr/bin/env bash
# Builds and runs the sanitizer suites:
#   scripts/sanitize.sh [asan|tsan|all]   (default all)
# asan  every test (C++ and JVM) under AddressSanitizer + UndefinedBehavior-
#       Sanitizer, LeakSanitizer included, in build-asan/. The JVM is not
#       instrumented, so the JVM tests run with the sanitizer runtime preloaded
#       (LD_PRELOAD of clang's libclang_rt.asan); see docs/reliability.md.
# tsan  the concurrency tests and the two-thread build under ThreadSanitizer,
#       in build-tsan/.
set -euo pipefail
cd "$(dirname "$0")/.."

which=${1:-all}
scripts/bootstrap.sh

run_asan() {
  cmake --preset asan >/dev/null
  cmake --build --preset asan
  ctest --preset asan
  local listed
  listed=$(ctest --test-dir build-asan -N -R '^jvm_tests$')
  if grep -q 'jvm_tests' <<<"$listed"; then
    TPA_ASAN_RUNTIME=$(clang++ -print-file-name=libclang_rt.asan-x86_64.so)
    [ -f "$TPA_ASAN_RUNTIME" ] || { echo "sanitize: no libclang_rt.asan runtime" >&2; exit 1; }
    export TPA_ASAN_RUNTIME
    ctest --preset asan-jvm
  fi
}

run_tsan() {
  cmake --preset tsan >/dev/null
  cmake --build --preset tsan
  ctest --preset tsan
}

case $which in
  asan) run_asan ;;
  tsan) run_tsan ;;
  all) run_asan && run_tsan ;;
  *) echo "usage: $0 [asan|tsan|all]" >&2; exit 2 ;;
esac
