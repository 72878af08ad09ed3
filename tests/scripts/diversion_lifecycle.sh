#!/bin/sh
# The agent's diversion table over the service's life, in a network namespace of its own,
# with a test host on 198.18.0.2:80. The table is there while the agent runs and listens on
# 127.0.0.1:5002 and goes with SIGTERM; owned by the agent, it also goes within a second of
# a SIGKILL, so that the client reaches its host directly, and a new start diverts again.
# Where the kernel refuses owned tables (a stand-in preloaded into the agent) the guardian
# removes it instead, and a table flushed by another program is rebuilt. Where nftables
# cannot build the table at all, the agent serves its listeners undiverted, says why, and
# ends within 5 s of a SIGTERM. The companion table inet tsc_swg_keep goes the same ways.
# The unit's ExecStopPost lines remove the tables left behind.
# Needs root (unshare -n), nft and python3; exits 77 (skipped) otherwise.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
need_tools nft python3
need_root "a network namespace with nftables"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
agent_data "$tmp"
cp "$SWG_SOURCE_DIR/packaging/sample/SWGConfig.json" "$conf/" 2>/dev/null || true
unit=$(mktemp -d)
DESTDIR="$unit" cmake --install "$SWG_BINARY_DIR" --prefix /usr --component Unspecified >/dev/null 2>&1
stoppost=$(sed -n 's/^ExecStopPost=-//p' "$unit/usr/lib/systemd/system/tsc_swgagent.service")
rm -rf "$unit"
[ -n "$stoppost" ] || { echo "FAIL: no ExecStopPost in the unit"; exit 1; }

# Everything below runs in one new namespace: nft there never sees the host's ruleset.
unshare -n sh -s "$SWG_BINARY_DIR/src/tsc_swgagent" "$tmp" "$stoppost" "$SWG_NFT_STANDIN" <<'INNER'
agent=$1; tmp=$2; stoppost=$3; standin=$4
ip link set lo up
ip addr add 198.18.0.2/32 dev lo
pid=""; host=""
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    [ -n "$host" ] && kill -KILL "$host" 2>/dev/null
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; echo "--- agent log"; cat "$tmp/err"; exit 1; }
python3 -c '
import socket
s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("198.18.0.2", 80)); s.listen(16)
while True:
    c, _ = s.accept(); c.sendall(b"host\n"); c.close()' &
host=$!
# Where a connect to the test host lands: host, diverted (to a live agent) or refused.
probe() {
    python3 -c '
import socket
s = socket.socket(); s.settimeout(1)
try:
    s.connect(("198.18.0.2", 80)); print("host" if s.recv(5) == b"host\n" else "diverted")
except ConnectionRefusedError: print("refused")
except OSError: print("diverted")'
}
start_agent() {  # [VAR=value...] for the agent's environment
    : >"$tmp/err"
    env "$@" SWG_LOG_STDERR=1 SWG_DATA_ROOT="$tmp" "$agent" -CONSOLE >/dev/null 2>"$tmp/err" &
    pid=$!
    i=0
    until grep -q "Service started successfully" "$tmp/err"; do
        i=$((i + 1)); [ $i -gt 500 ] && fail "agent did not start"; sleep 0.02
    done
}
table() { nft list table inet "${1:-tsc_swg}" >/dev/null 2>&1; }
wait_table() {  # present|absent [tries of 20 ms] [table]
    i=0
    while :; do
        if table "${3:-}"; then [ "$1" = present ] && return 0; else [ "$1" = absent ] && return 0; fi
        i=$((i + 1)); [ $i -gt "${2:-500}" ] && fail "table ${3:-tsc_swg} not $1"; sleep 0.02
    done
}
expect_probe() { got=$(probe); [ "$got" = "$1" ] || fail "connect to the host: $got, expected $1 ($2)"; }
stop_within() {  # seconds: SIGTERM, then the agent must be gone
    kill -TERM "$pid"; i=0
    while kill -0 "$pid" 2>/dev/null; do
        i=$((i + 1)); [ $i -gt $(($1 * 20)) ] && fail "agent still there $1 s after SIGTERM"; sleep 0.05
    done
    wait "$pid"; pid=""
}

# Owned by the agent: SIGTERM and SIGKILL alike take it away.
start_agent
wait_table present
nft list table inet tsc_swg | grep -q "flags owner" || fail "the table is not owned"
nft list table inet tsc_swg | grep -q "redirect to :5002" || fail "no redirect rule"
table tsc_swg_keep || fail "no companion table"
expect_probe diverted "agent running"
stop_within 5
table && fail "SIGTERM left the table"
start_agent
wait_table present
kill -KILL "$pid"; wait "$pid" 2>/dev/null; pid=""
wait_table absent 50
table tsc_swg_keep && fail "SIGKILL left the companion table"
expect_probe host "agent killed"
start_agent
wait_table present
expect_probe diverted "agent started again"
kill -KILL "$pid"; wait "$pid" 2>/dev/null; pid=""
wait_table absent 50

# The fallback: an unowned table, a guardian, tampering repaired.
start_agent LD_PRELOAD="$standin" SWG_TEST_NFT_REFUSE=owner
grep -q "the kernel refuses tables owned by the agent" "$tmp/err" || fail "no word of the fallback"
wait_table present
nft list table inet tsc_swg | grep -q "flags owner" && fail "the fallback table claims an owner"
nft flush table inet tsc_swg || fail "the fallback table refused a flush"
i=0
until nft list table inet tsc_swg 2>/dev/null | grep -q "redirect to :5002"; do
    i=$((i + 1)); [ $i -gt 500 ] && fail "the flushed table was not rebuilt"; sleep 0.02
done
grep -q "was changed by another program" "$tmp/err" || fail "the flush went unnoticed"
expect_probe diverted "table rebuilt"
table tsc_swg_keep || fail "no companion table in the fallback"
kill -KILL "$pid"; wait "$pid" 2>/dev/null; pid=""
wait_table absent 50
wait_table absent 50 tsc_swg_keep
expect_probe host "agent killed, guardian"

# No NAT in nftables: no diversion, the listeners all the same, and a prompt stop.
start_agent LD_PRELOAD="$standin" SWG_TEST_NFT_REFUSE=nat
grep -q "Redirector: nftables cannot build the diversion table" "$tmp/err" || fail "no reason given"
grep -q "CreateLmsockSwgApi failed with error" "$tmp/err" || fail "the creation did not fail"
python3 -c 'import socket; socket.create_connection(("127.0.0.1", 5002), 2).close()' ||
    fail "the listener does not take connections"
table && fail "a table without NAT support"
expect_probe host "no diversion"
stop_within 5

# The unit's second line, for a table that is left all the same.
nft add table inet tsc_swg
nft add table inet tsc_swg_keep
echo "$stoppost" | while read -r line; do $line || exit 1; done || fail "ExecStopPost failed: $stoppost"
table && fail "ExecStopPost left the table"
table tsc_swg_keep && fail "ExecStopPost left the companion table"
$(echo "$stoppost" | head -n 1) 2>/dev/null && fail "a second ExecStopPost found a table"
echo "PASS"
INNER
