#!/usr/bin/env bash
# Checks that every module of src/ includes only itself and the modules below
# it. A file belongs to the module of its folder; an included header is
# "module/..." or, for an installed header, the path under a module's
# include/ folder ("tpa/api/constants.h" lies in base/include/).
#   check_layers.sh SOURCE_DIR [--dot]
# With --dot it also prints the includes between modules as a Graphviz graph
# (every arrow points down the layers when the check passes).
set -euo pipefail
cd "$1/src"
declare -A edges=()
declare -A below=(
  [base]=""
  [fsa]="base" [lru]="base" [cidr]="base" [json]="base"
  [machine]="base fsa lru"
  [parser]="base json cidr"
  [mapper]="base cidr machine fsa lru"
  [api]="base mapper parser cidr machine fsa lru json"
  [jni]="base api"
)
layer() {  # the module of a header as included
  local owner
  for owner in */include/"$1"; do
    [[ -e $owner ]] && { echo "${owner%%/*}"; return; }
  done
  echo "${1%%/*}"
}
status=0
while IFS= read -r file; do
  from=${file%%/*}
  [[ -v below[$from] ]] || { echo "$file: module $from has no place in the layers"; status=1; continue; }
  while IFS= read -r header; do
    to=$(layer "$header")
    [[ $to != "$from" ]] && edges["$from -> $to"]=1
    [[ $to == "$from" || " ${below[$from]} " == *" $to "* ]] && continue
    echo "$file includes $header: $to is not below $from"
    status=1
  done < <(sed -n 's/^#include "\([a-z_]*\/[^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.h' -o -name '*.cc' | sed 's|^\./||' | sort)
if [[ ${2:-} == --dot ]]; then
  echo "digraph includes {"
  printf '  %s;\n' "${!edges[@]}" | sort
  echo "}"
fi
exit $status
