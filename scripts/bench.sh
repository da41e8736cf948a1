#!/usr/bin/env bash
# Builds and runs the benchmarks, then writes the report: the tables of
# docs/performance.md (between its results markers) and docs/performance.svg,
# all from this one run.
#   scripts/bench.sh [tpa_bench flags, e.g. --tpa_sizes=1000,10000]
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

# The command-line comparison: tpa query against the peers behind the same
# stdin protocol, 1M queries per stream on 100k destinations, 100k on 1M.
# TPA_BENCH_CLI=0 skips it.
if [ "${TPA_BENCH_CLI:-1}" != 0 ]; then
  cmake --build "$build" -j2 --target tpa tpa_peer
  cli=$out/cli
  mkdir -p "$cli"
  "$build/bench/tpa_bench" --tpa_write_cli="$cli" --tpa_sizes=100000
  "$build/bench/tpa_bench" --tpa_write_cli="$cli" --tpa_sizes=1000000 --tpa_queries=100000
  python3 bench/cli_bench.py "$build" "$cli" 100000,1000000 --doc docs/performance.md
fi
echo "bench: wrote docs/performance.md and docs/performance.svg from $out" >&2
