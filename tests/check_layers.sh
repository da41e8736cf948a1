#!/usr/bin/env bash
# Checks that every module of src/ includes only itself and the modules below
# it. The shared vocabulary (api/constants.h, api/log.h, api/log_message.h,
# api/export.h) is the layer "base"; the rest of api/ is the facade.
#   check_layers.sh SOURCE_DIR
set -euo pipefail
cd "$1/src"
declare -A below=(
  [base]=""
  [fsa]="base" [lru]="base" [cidr]="base" [json]="base"
  [machine]="base fsa lru"
  [parser]="base json cidr"
  [mapper]="base cidr machine fsa lru"
  [api]="base mapper parser cidr machine fsa lru json"
  [jni]="base api"
)
layer() {  # the layer of a path under src/
  case "$1" in
    api/constants.* | api/log.* | api/log_message.h | api/export.h) echo base ;;
    *) echo "${1%%/*}" ;;
  esac
}
status=0
while IFS= read -r file; do
  from=$(layer "$file")
  [[ -v below[$from] ]] || { echo "$file: module $from has no place in the layers"; status=1; continue; }
  while IFS= read -r header; do
    to=$(layer "$header")
    [[ $to == "$from" || " ${below[$from]} " == *" $to "* ]] && continue
    echo "$file includes $header: $to is not below $from"
    status=1
  done < <(sed -n 's/^#include "\([a-z_]*\/[^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.h' -o -name '*.cc' | sed 's|^\./||' | sort)
exit $status
