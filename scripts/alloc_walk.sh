#!/usr/bin/env bash
# Walks every heap allocation of one `tpa query` run, as a new user would:
#   scripts/alloc_walk.sh [RULES [APP DEST]...]
# Run n makes the n-th malloc/calloc/realloc of the process fail (and, in the
# sticky pass, every later one too), through an LD_PRELOAD shim built into
# build/. Prints how the runs ended (exit status, first stderr line) and fails
# when a run crashed or ended in exit 3, which is kept for the two documented
# throws. Needs build/tpa (scripts/test.sh builds it).
set -euo pipefail
cd "$(dirname "$0")/.."
tpa=build/tpa
[ -x "$tpa" ] || { echo "alloc_walk: build $tpa first (scripts/test.sh)" >&2; exit 2; }

shim=build/fail_nth_alloc.so
cat >build/fail_nth_alloc.c <<'EOF'
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
static long at = -1, seen = 0;
static int sticky = 0;
static int fail(void) {
  if (at < 0) {
    const char* n = getenv("TPA_FAIL_AT");
    at = n ? atol(n) : 0;
    sticky = getenv("TPA_FAIL_STICKY") != NULL;
  }
  ++seen;
  return at > 0 && (seen == at || (sticky && seen > at));
}
void* malloc(size_t s) { return fail() ? NULL : __libc_malloc(s); }
void* calloc(size_t n, size_t s) { return fail() ? NULL : __libc_calloc(n, s); }
void* realloc(void* p, size_t s) { return fail() ? NULL : __libc_realloc(p, s); }
__attribute__((destructor)) static void count(void) {
  char line[32];
  int n = snprintf(line, sizeof line, "%ld\n", seen);
  if (getenv("TPA_ALLOC_COUNT") != NULL && n > 0) (void)!write(2, line, (size_t)n);
}
EOF
cc -O2 -shared -fPIC -o "$shim" build/fail_nth_alloc.c

rules=${1:-build/alloc_walk.json}
if [ $# -eq 0 ]; then
  cat >"$rules" <<'EOF'
[{"match_apps": ["com.mail"], "include": ["*.shop.test", "10.1.0.0/16", "2001:db8::/32"],
  "exclude": ["ads.shop.test", "10.1.2.3", "2001:db8::1"], "id": "7"},
 {"match_apps": ["#LAMBDA-APP"], "include": ["192.168.1.1", "::1"], "exclude": ["*.track.test", "fe80::/10"], "id": "9"},
 {"include": ["open.test"], "exclude": ["ads.other.test"], "id": "11"}]
EOF
  set -- "$rules" com.mail x.shop.test com.mail 10.1.9.9 other fe80::1 other open.test
else
  shift
  [ $# -gt 0 ] || set -- "$rules" any.app x.test
  set -- "$rules" "$@"
fi

expected=$("$tpa" query "$@" 2>/dev/null) || true
total=$(TPA_ALLOC_COUNT=1 LD_PRELOAD=$PWD/$shim "$tpa" query "$@" 2>&1 >/dev/null | tail -1)
echo "tpa query $*: $total allocations"
bad=0
for pass in once sticky; do
  summary=$(mktemp)
  for n in $(seq 1 "$total"); do
    set +e
    if [ $pass = sticky ]; then
      out=$(TPA_FAIL_AT=$n TPA_FAIL_STICKY=1 LD_PRELOAD=$PWD/$shim "$tpa" query "$@" 2>build/alloc_walk.err)
    else
      out=$(TPA_FAIL_AT=$n LD_PRELOAD=$PWD/$shim "$tpa" query "$@" 2>build/alloc_walk.err)
    fi
    rc=$?
    set -e
    message=$(grep -v '^tarn_patteren_analyzer.so\|^$' build/alloc_walk.err | head -1 || true)
    if [ $rc -eq 0 ] && [ "$out" != "$expected" ]; then
      message="answers differ"
      [ $pass = sticky ] && [ -z "$(grep -v $'^exclude\t-1$' <<<"$(diff <(echo "$expected") <(echo "$out") | sed -n 's/^> //p')")" ] &&
        message="answers differ: exclude -1 where no memory was left to frame the keys"
    fi
    echo "exit $rc: ${message:-(answers as without failures)}" >>"$summary"
    if [ $rc -eq 3 ] || [ $rc -gt 128 ] || [ "$message" = "answers differ" ]; then
      # The C++ runtime's own emergency exception pool is the process's first
      # allocation; when it and every later one fail, nothing can be thrown.
      if [ $pass = sticky ] && [ $n -eq 1 ]; then
        message="$message (the runtime's exception pool)"
      else
        bad=1
      fi
      echo "alloc_walk: allocation $n ($pass): exit $rc: $message" >&2
    fi
  done
  echo "$pass:"
  sort "$summary" | uniq -c | sed 's/^/  /'
  rm -f "$summary"
done
exit $bad
