#!/bin/sh
# swg-status with no agent listening: a clear message and exit status 1; a bad argument: 2.
# Runs the command in a network namespace of its own, where no agent can answer. Needs root
# (unshare -n); exits 77 (skipped) otherwise.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
need_root "a network namespace"
status="$SWG_BINARY_DIR/tools/status/swg-status"
out=$(unshare -n sh -c 'ip link set lo up; exec "$0" 2>&1' "$status")
rc=$?
[ $rc -eq 1 ] || { echo "FAIL: exit status $rc with no agent: $out"; exit 1; }
echo "$out" | grep -qF "swg-status: no agent is listening on 127.0.0.1:5004" \
    || { echo "FAIL: message: $out"; exit 1; }
"$status" --bogus >/dev/null 2>&1
rc=$?
[ $rc -eq 2 ] || { echo "FAIL: exit status $rc for a bad argument"; exit 1; }
echo "PASS"
