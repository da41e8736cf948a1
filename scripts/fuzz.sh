#!/usr/bin/env bash
# Builds the libFuzzer targets (preset `fuzz`, in build-fuzz/), seeds their
# corpora and runs each target in turn, one process on one core.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# SECONDS is the run time per target (default 20, what CI uses); TARGET
# defaults to every target. The corpora grow in build-fuzz/corpus/<target>
# across runs; seeds are regenerated into build-fuzz/seeds/<target> from
# fuzz/corpus/, examples/ and the JSON documents written in tests/. A crash
# leaves its input in build-fuzz/artifacts/ and fails the script. One summary
# line per target (execs, coverage, corpus) ends the output.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
shift || true
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(fuzz_json_parser fuzz_build_query fuzz_address fuzz_import)

scripts/bootstrap.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]}"

out=build-fuzz
mkdir -p "$out/artifacts"

# Rules documents: the hand seeds, the examples and every raw-string or plain
# string literal in the tests that looks like a rules array.
rules_documents() {
  local dir=$1 i=0 f
  for f in fuzz/corpus/json/* examples/*.json; do
    [ -f "$f" ] && cp "$f" "$dir/hand-$((i += 1))"
  done
  perl -0777 -ne '
    while (/R"\((\[.*?)\)"/sg) { print "$1\0"; }
    while (/"(\[\{(?:[^"\\]|\\.)*)"/g) { (my $s = $1) =~ s/\\"/"/g; print "$s\0"; }
  ' tests/*_test.cc 2>/dev/null |
    perl -0 -ne 'BEGIN { $n = 0 } chomp; next unless length;
      open(my $h, ">", "'"$dir"'/test-" . ++$n) or die; print $h $_; close $h;'
}

# FuzzedDataProvider strings: backslashes doubled, each string ended by "\\\n".
fdp() { local s; for s in "$@"; do printf '%s\\\n' "${s//\\/\\\\}"; done; }

seed() {
  local target=$1 dir=$out/seeds/$1
  rm -rf "$dir" && mkdir -p "$dir" "$out/corpus/$target"
  case $target in
    fuzz_json_parser) rules_documents "$dir" ;;
    fuzz_address) cp fuzz/corpus/address/* "$dir"/ ;;
    # A first byte that picks the list format and the options, then a list.
    fuzz_import) cp fuzz/corpus/import/* "$dir"/ ;;
    fuzz_build_query)
      local docs f i=0
      docs=$(mktemp -d)
      rules_documents "$docs"
      for f in "$docs"/*; do
        fdp "$(cat "$f")" com.example.mail cdn.example.com unknown.app 10.1.2.3 \
          "#LAMBDA-APP" 2001:db8::5 "" "" >"$dir/doc-$((i += 1))"
      done
      rm -rf "$docs"
      if [ -f examples/rules.json ] && [ -f examples/queries.tsv ]; then
        local pairs
        mapfile -t pairs < <(grep -v '^#' examples/queries.tsv | head -n 16 | tr '\t' '\n')
        fdp "$(cat examples/rules.json)" "${pairs[@]}" >"$dir/example-queries"
      fi
      cp fuzz/corpus/query/* "$dir"/ 2>/dev/null || true ;;
  esac
}

summary=()
status=0
for target in "${targets[@]}"; do
  seed "$target"
  log=$out/$target.log
  echo "== $target: ${seconds}s" >&2
  if ! "$out/fuzz/$target" "$out/corpus/$target" "$out/seeds/$target" \
      -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -max_len=65536 \
      -print_final_stats=1 -artifact_prefix="$out/artifacts/$target-" >"$log" 2>&1; then
    status=1
    tail -n 40 "$log" >&2
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  cov=$(grep -o 'cov: [0-9]* ft: [0-9]* corp: [0-9]*/[0-9a-zA-Z]*' "$log" | tail -n 1)
  summary+=("$target: ${seconds}s, ${execs:-?} execs, ${cov:-no coverage line}")
done
printf '%s\n' "${summary[@]}"
exit $status
