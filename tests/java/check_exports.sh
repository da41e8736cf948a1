#!/usr/bin/env bash
# Checks that a shared library exports exactly its interface: JNI_OnLoad,
# LOG_message, the public members of the tpa::api facade and the shared
# constants.
#   check_exports.sh LIBRARY
set -euo pipefail

allowed='^(JNI_OnLoad|LOG_message'
allowed+='|tpa::api::Builder::(Builder|~Builder|operator=|build|query|clearCache)\(.*'
allowed+='|tpa::api::TarnPatternAnalyzer::(TarnPatternAnalyzer|~TarnPatternAnalyzer|build|validate|query)\(.*'
allowed+='|tpa::error::TPA_ERROR_[A-Z_]+'
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
    'tpa::api::Builder::query' 'tpa::error::TPA_ERROR_SA_INVALID_CAPACITTY'; do
  grep -q "^$required" <<<"$symbols" || { echo "missing export: $required"; exit 1; }
done
echo "$(wc -l <<<"$symbols") exported symbols, all of the interface"
