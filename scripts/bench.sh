#!/usr/bin/env bash
# Builds and runs the benchmarks, then writes the report: the tables of
# docs/performance.md (between its results markers) and docs/performance.svg,
# all from this one run.
#   scripts/bench.sh [tpa_bench flags, e.g. --tpa_sizes=1000,10000]
#   scripts/bench.sh --cli [SIZES]   only the command-line comparison (its
#                                    section of docs/performance.md); SIZES
#                                    defaults to 100000,1000000
# In the command-line comparison, TPA_BENCH_BEFORE=REV also builds `tpa` at
# git revision REV and times it in the same interleaved run (the "before"
# column); TPA_BENCH_CLI_REPS sets the repetitions (3).
# Build tree: build-bench/ (TPA_BENCH_BUILD overrides); raw results in its
# bench-results/ folder.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
build=${TPA_BENCH_BUILD:-build-bench}
out=$build/bench-results

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTPA_BUILD_TESTS=OFF -DTPA_BUILD_FUZZERS=OFF >/dev/null
cmake --build "$build" -j2 --target tpa_bench

# The command-line comparison: tpa query against the peers behind the same
# stdin protocol, 1M queries per stream at every size (bench/cli_bench.py).
cli_comparison() {
  cmake --build "$build" -j2 --target tpa tpa_peer
  local cli=$out/cli size before=()
  if [ -n "${TPA_BENCH_BEFORE:-}" ]; then
    local src=$build/before-src
    rm -rf "$src"
    mkdir -p "$src"
    git archive "$TPA_BENCH_BEFORE" | tar -x -C "$src"
    cmake -S "$src" -B "$src/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DTPA_BUILD_TESTS=OFF -DTPA_BUILD_FUZZERS=OFF -DTPA_BUILD_BENCHMARKS=OFF \
      -DTPA_BUILD_JNI=OFF >/dev/null
    cmake --build "$src/build" -j2 --target tpa
    before=(--before "$src/build/tpa" --before-label "$(git rev-parse --short "$TPA_BENCH_BEFORE")")
  fi
  mkdir -p "$cli"
  for size in ${1//,/ }; do
    "$build/bench/tpa_bench" --tpa_write_cli="$cli" --tpa_sizes="$size" --tpa_queries=1000000
  done
  python3 bench/cli_bench.py "$build" "$cli" "$1" --doc docs/performance.md \
    --reps "${TPA_BENCH_CLI_REPS:-3}" "${before[@]}"
}

if [ "${1:-}" = --cli ]; then
  cli_comparison "${2:-100000,1000000}"
  echo "bench: wrote the command-line section of docs/performance.md" >&2
  exit 0
fi
java_classes=""
if cmake --build "$build" -j2 --target tpa_bench_java 2>/dev/null; then
  java_classes=$build/bench/java-classes
fi

rm -rf "$out"
mkdir -p "$out"
"$build/bench/tpa_bench" --tpa_check_out="$out/checks.txt" \
  --benchmark_out="$out/bench.json" --benchmark_out_format=json "$@"

if [ -n "$java_classes" ] && command -v java >/dev/null; then
  "$build/bench/tpa_bench" --tpa_write_workload="$out" "$@"
  for rules in "$out"/*-rules.json; do
    size=$(basename "$rules" -rules.json)
    for stream in repeated distinct; do
      java -Djava.library.path="$build" -cp "$java_classes" tpa.bench.NativeQueryBench \
        "$size" "$rules" "$out/$size-$stream.tsv" >>"$out/jvm.jsonl"
    done
  done
fi

python3 bench/report.py "$out" docs/performance.md docs/performance.svg "$build"

# TPA_BENCH_CLI=0 skips the command-line comparison.
if [ "${TPA_BENCH_CLI:-1}" != 0 ]; then
  cli_comparison 100000,1000000
fi
echo "bench: wrote docs/performance.md and docs/performance.svg from $out" >&2
