#!/usr/bin/env bash
# Checks that a shared library exports exactly its interface: JNI_OnLoad,
# LOG_message, the public members of the tpa::api facade and the shared
# constants, and that each C++ name it exports is declared in an installed
# header (else an outside program cannot call what the library offers).
#   check_exports.sh LIBRARY SOURCE_DIR
set -euo pipefail

allowed='^(JNI_OnLoad|LOG_message'
allowed+='|tpa::api::Builder::(Builder|~Builder|operator=|build|query|clearCache)\(.*'
allowed+='|tpa::api::TarnPatternAnalyzer::(TarnPatternAnalyzer|~TarnPatternAnalyzer|build|validate|query)\(.*'
allowed+='|tpa::error::TPA_ERROR_[A-Z_]+|tpa::error::name\(int\)'
allowed+='|tpa::sigma::sentinel::(PRECEDING_SYMBOL|SUCCEEDING_SYMBOL|LAMBDA_STRING)'
allowed+='|tpa::machine::(kFullKey|kPartialKey)'
allowed+='|tpa::fsa::SA_DEFAULT_USER_DEFINED_VALUE'
allowed+='|tpa::mapper::(TPA_DECISION_INCLUDE|TPA_DECISION_EXCLUDE|TPA_RULE_NUMBER_ZERO|MAP_DEFAULT_DOMAIN_VALUE))$'

symbols=$(nm -D --defined-only -C "$1" | cut -d' ' -f3-)
unexpected=$(grep -Ev "$allowed" <<<"$symbols" || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exported symbols:"
  echo "$unexpected"
  exit 1
fi
for required in JNI_OnLoad LOG_message 'tpa::api::TarnPatternAnalyzer::build' \
    'tpa::api::Builder::query' 'tpa::error::TPA_ERROR_SA_INVALID_CAPACITTY' 'tpa::error::name'; do
  grep -q "^$required" <<<"$symbols" || { echo "missing export: $required"; exit 1; }
done
headers=$(cat "$2"/src/*/include/tpa/api/*.h)
while IFS= read -r symbol; do
  [[ $symbol == tpa::* ]] || continue
  name=${symbol%%(*}
  name=${name##*::}
  name=${name#\~}
  grep -qw -- "$name" <<<"$headers" || { echo "exported but in no installed header: $symbol"; exit 1; }
done <<<"$symbols"
echo "$(wc -l <<<"$symbols") exported symbols, all of the interface"
