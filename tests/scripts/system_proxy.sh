#!/bin/sh
# The system proxy on a running agent, in a network namespace of its own:
# - started with https_proxy in its environment, the agent logs the proxy as found;
# - a client that talks to a proxy through a diverted port (CONNECT to 198.18.0.40:3128, a
#   monitored port here) is recorded as the observed proxy;
# - started without the variable, it takes the proxy from /etc/environment (the namespace's
#   own copy, which ip netns exec mounts over the host's).
# Needs root, nft and curl; exits 77 (skipped) otherwise.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
need_tools nft curl
need_root "a network namespace"

agent="$SWG_BINARY_DIR/src/tsc_swgagent"
ns=swgproxy$$
tmp=$(mktemp -d)
pid=""
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    ip netns del "$ns" 2>/dev/null
    rm -rf "/etc/netns/$ns" "$tmp"
}
trap cleanup EXIT
die() { echo "FAIL: $*"; echo "--- agent log"; cat "$tmp/err"; exit 1; }

agent_data "$tmp"
sed 's/"webTrafficMonitorPorts": \[\]/"webTrafficMonitorPorts": ["3128"]/' \
    "$SWG_SOURCE_DIR/packaging/sample/SWGConfig.json" >"$conf/SWGConfig.json"
grep -q '"3128"' "$conf/SWGConfig.json" || { echo "FAIL: port 3128 not configured"; exit 1; }

ip netns add "$ns" || exit 1
ip -n "$ns" link set lo up
ip -n "$ns" addr add 198.18.0.40/32 dev lo

logged() { wait_for "$tmp/err" "$1" "$2" || die "no '$1'"; }
start_agent() {  # extra environment assignments
    : >"$tmp/err"
    ip netns exec "$ns" env -u https_proxy -u HTTPS_PROXY "$@" SWG_LOG_STDERR=1 \
        SWG_DATA_ROOT="$tmp" "$agent" -console >/dev/null 2>"$tmp/err" &
    pid=$!
    logged "Service started successfully" 30
}
stop_agent() {
    kill -TERM "$pid"; wait "$pid"; rc=$?; pid=""
    [ $rc -eq 0 ] || die "exit status $rc"
}

start_agent https_proxy=http://198.18.0.41:3128
grep -qF "Proxy detected" "$tmp/err" || die "the system proxy was not found"
grep -qF "proxy is 198.18.0.41 and proxy port is 3128" "$tmp/err" || die "wrong system proxy"

logged "Redirector: table inet tsc_swg in force" 30
# In force once one family diverts; the IPv4 rules follow when the IPv4 listener listens.
i=0
until ip netns exec "$ns" nft list chain inet tsc_swg divert 2>/dev/null | grep -q "ip daddr"; do
    i=$((i + 1)); [ $i -gt 500 ] && die "no IPv4 diversion"; sleep 0.02
done
ip netns exec "$ns" curl -s --max-time 10 -x http://198.18.0.40:3128 https://secure.demo.test/ \
    >/dev/null 2>&1
logged "Connection : Proxy = 198.18.0.40 : 3128" 10
grep -qF "Request made via Proxy 198.18.0.40:3128" "$tmp/err" || die "CONNECT not seen as a proxy"
stop_agent

mkdir -p "/etc/netns/$ns"
printf '# proxy of the site\nexport https_proxy="http://198.18.0.42:8080"' >"/etc/netns/$ns/environment"
start_agent
grep -qF "proxy is 198.18.0.42 and proxy port is 8080" "$tmp/err" \
    || die "the proxy of /etc/environment was not found"
stop_agent
echo "system proxy checks passed"
