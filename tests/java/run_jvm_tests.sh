#!/usr/bin/env bash
# Runs the JVM tests of the JNI library:
#   run_jvm_tests.sh JAVA CLASSES PROBE_CLASSES BROKEN_CLASSES LIBRARY_PATH
# The socket tests need a network of their own. Where the kernel allows it,
# the JVM runs in a private network namespace with only loopback up, in which
# iptables redirects 127.0.0.2:443 and 127.0.0.2:65535 to a local listener;
# without root or iptables those tests report themselves skipped.
set -uo pipefail

java=$1 classes=$2 probe=$3 broken=$4 library_path=$5
listener_port=18443

run_java() {
  exec "$java" -Xcheck:jni -Djava.library.path="$library_path" -cp "$classes" \
    -Dtpa.probe.cp="$probe" -Dtpa.broken.cp="$broken:$probe:$classes" "$@" tpa.jvmtest.JvmTests
}

redirect() {
  iptables -t nat -A OUTPUT -p tcp -d 127.0.0.2 --dport "$1" \
    -j REDIRECT --to-ports "$listener_port"
}

if [ "${TPA_PRIVATE_NETWORK:-}" = 1 ]; then
  if ! ip link set lo up; then
    echo "run_jvm_tests: cannot bring loopback up; socket tests are skipped" >&2
    run_java
  fi
  if command -v iptables >/dev/null && redirect 443 && redirect 65535; then
    run_java -Dtpa.netns=1 -Dtpa.redirect.port="$listener_port"
  fi
  echo "run_jvm_tests: no iptables redirect; that test is skipped" >&2
  run_java -Dtpa.netns=1
fi

export TPA_PRIVATE_NETWORK=1
if unshare -n true 2>/dev/null; then
  exec unshare -n "$0" "$@"
elif unshare -rn true 2>/dev/null; then
  exec unshare -rn "$0" "$@"
fi
echo "run_jvm_tests: no private network namespace; socket tests are skipped" >&2
unset TPA_PRIVATE_NETWORK
run_java
