#!/usr/bin/env bash
# The main job on a workstation: builds the `tpa` tool into build/ and shows
# how the analyzer reads the bundled rules document and decides the bundled
# queries: `tpa check`, `tpa query` over examples/queries.tsv, one `tpa explain`.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target tpa

echo
echo "== build/tpa check examples/rules.json"
build/tpa check examples/rules.json

echo
echo "== build/tpa query examples/rules.json < examples/queries.tsv   (APP DEST -> DECISION VALUE)"
paste examples/queries.tsv <(build/tpa query examples/rules.json < examples/queries.tsv)

echo
echo "== build/tpa explain examples/rules.json com.example.mail ads.example.com"
build/tpa explain examples/rules.json com.example.mail ads.example.com
