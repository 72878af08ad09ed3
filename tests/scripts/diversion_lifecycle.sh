#!/bin/sh
# The agent's diversion table over the service's life, in a network namespace of its own:
# present while the agent runs and listens on 127.0.0.1:5002, gone after SIGTERM;
# left by SIGKILL, replaced by the next start, and removed by the unit's ExecStopPost.
# Needs root (unshare -n) and nft; exits 77 (skipped) otherwise.
set -u
if [ "$(id -u)" -ne 0 ] || ! command -v nft >/dev/null 2>&1; then
    echo "SKIP: needs root and nft for a network namespace with nftables"
    exit 77
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
confdir="$tmp/trevo/trevoclient/tarnwall/SWG"
mkdir -p "$confdir"
cp "$SWG_SOURCE_DIR/packaging/sample/SWGConfig.json" "$confdir/" 2>/dev/null || true
unit=$(mktemp -d)
DESTDIR="$unit" cmake --install "$SWG_BINARY_DIR" --prefix /usr --component Unspecified >/dev/null 2>&1
stoppost=$(sed -n 's/^ExecStopPost=-//p' "$unit/usr/lib/systemd/system/tsc_swgagent.service")
rm -rf "$unit"
[ -n "$stoppost" ] || { echo "FAIL: no ExecStopPost in the unit"; exit 1; }

# Everything below runs in one new namespace: nft there never sees the host's ruleset.
unshare -n sh -s "$SWG_BINARY_DIR/src/tsc_swgagent" "$tmp" "$stoppost" <<'INNER'
agent=$1; tmp=$2; stoppost=$3
ip link set lo up
pid=""
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "--- agent log"; cat "$tmp/err"; exit 1; }
start_agent() {
    : >"$tmp/err"
    SWG_LOG_STDERR=1 SWG_DATA_ROOT="$tmp" "$agent" -CONSOLE >/dev/null 2>"$tmp/err" &
    pid=$!
    i=0
    until grep -q "Service started successfully" "$tmp/err"; do
        i=$((i + 1)); [ $i -gt 500 ] && fail "agent did not start"; sleep 0.02
    done
}
table() { nft list table inet tsc_swg >/dev/null 2>&1; }
wait_table() {  # present|absent
    i=0
    while :; do
        if table; then [ "$1" = present ] && return 0; else [ "$1" = absent ] && return 0; fi
        i=$((i + 1)); [ $i -gt 500 ] && fail "table not $1"; sleep 0.02
    done
}
start_agent
wait_table present
nft list table inet tsc_swg | grep -q "redirect to :5002" || fail "no redirect rule"
kill -TERM "$pid"; wait "$pid"; pid=""
table && fail "SIGTERM left the table"

start_agent
wait_table present
kill -KILL "$pid"; wait "$pid" 2>/dev/null; pid=""
table || fail "the table went with a killed agent; nothing left to test"
start_agent
grep -q "Redirector: opened, table inet tsc_swg replaced" "$tmp/err" || fail "stale table not replaced"
wait_table present
kill -KILL "$pid"; wait "$pid" 2>/dev/null; pid=""
$stoppost || fail "ExecStopPost failed: $stoppost"
table && fail "ExecStopPost left the table"
$stoppost 2>/dev/null && fail "a second ExecStopPost found a table"
echo "PASS"
INNER
