#!/bin/sh
# Soak and fault run: the real agent with its real nftables diversion in a laptop namespace,
# the test gateway and an origin in an internet namespace (scripts/lib/world.sh), a resolver
# of its own in the laptop, and a bounded concurrent mix of clients, while faults come on a
# schedule (soak_drive.py). Checks that every client that should have been answered got
# exactly its bytes, that no client hung, that the agent neither crashed nor restarted, that
# its descriptors and threads came back to their level after the warm-up once the load had
# stopped and its memory to within a bound, and that SIGHUP at the end stops it cleanly with
# its table gone. Prints a summary and writes it with a plot (plot.svg) into the output folder.
#
#   soak.sh [--duration SECONDS] [--out DIR]
#
# --duration is the load after the warm-up (default 100, about two minutes in all); an hour
# or more is --duration 3600. The binaries come from SWG_BINARY_DIR (default build/debug).
# The table is made without owner (a stand-in preloaded into the agent, as on kernels before
# 5.12) so that deleting it is a fault the agent must recover from; SWG_SOAK_OWNED=1 keeps
# the owned table, whose deletion the kernel refuses. SWG_SOAK_WORKERS (12) workers for
# clients that must be answered (and half as many for hostile ones), SWG_SOAK_BURST (700)
# connections per burst, one burst every SWG_SOAK_BURST_EVERY (40) seconds,
# SWG_SOAK_RSS_SLACK_KIB (the memory bound). docs/testing.md tells the rest. Needs root, nft,
# ip, python3 and openssl; exits 77 (skipped) otherwise.
set -u
duration=100
out=""
while [ $# -gt 0 ]; do
    case $1 in
        --duration) duration=$2; shift 2 ;;
        --out) out=$2; shift 2 ;;
        *) echo "usage: soak.sh [--duration SECONDS] [--out DIR]" >&2; exit 2 ;;
    esac
done
here=$(cd "$(dirname "$0")" && pwd)
src=${SWG_SOURCE_DIR:-$(cd "$here/../.." && pwd)}
bin=${SWG_BINARY_DIR:-$src/build/debug}
SWG_SOURCE_DIR=$src SWG_BINARY_DIR=$bin
. "$src/tests/scripts/lib/checks.sh"
need_tools nft ip python3 openssl
need_root "network namespaces"
agent="$bin/src/tsc_swgagent"
gateway="$bin/tools/test-gateway/swg-test-gateway"
status="$bin/tools/status/swg-status"
standin=${SWG_NFT_STANDIN:-$bin/tests/libswg_nft_standin.so}
need_built "$agent" "$gateway" "$status"
[ -n "$out" ] || out="$bin/soak/$(date +%Y%m%d-%H%M%S)"
mkdir -p "$out"

WORLD=swgsoak$$
WORLD_WORK=$(mktemp -d /tmp/swgsoak.XXXXXX)  # world.sh came with checks.sh
cleanup() {
    set +e
    # Everything this run started lives in its two namespaces.
    for ns in "$(world_client)" "$(world_inet)"; do
        for p in $(ip netns pids "$ns" 2>/dev/null); do kill -KILL "$p" 2>/dev/null; done
    done
    world_destroy
    rm -rf "$WORLD_WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

world_create || exit 1
client=$(world_client)
inet=$(world_inet)
# The laptop finds the gateway through its own resolver, which the run can silence.
grep -v gateway.swg.test "/etc/netns/$client/hosts" >"$WORLD_WORK/hosts" && cp "$WORLD_WORK/hosts" "/etc/netns/$client/hosts"
world_spawn "$client" "$WORLD_WORK/dns.out" python3 "$here/soak_peers.py" dns "$WORLD_WORK/dns-silent"
world_wait_for "$WORLD_WORK/dns.out" ready 10 || exit 1
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 -subj "/CN=secure.demo.test" \
    -keyout "$WORLD_WORK/origin.key" -out "$WORLD_WORK/origin.crt" 2>/dev/null
world_spawn "$inet" "$WORLD_WORK/origin.out" python3 "$here/soak_peers.py" origin "$WORLD_WORK/origin.crt" "$WORLD_WORK/origin.key"
world_wait_for "$WORLD_WORK/origin.out" ready 10 || exit 1
key="$src/packaging/sample/licence-test-private.pem"
world_start_gateway "$gateway" "$key" --max-connections 1024 || exit 1

data="$WORLD_WORK/data"
conf="$data/trevo/trevoclient/tarnwall/SWG"
mkdir -p "$conf"
# The default log level: the sample's is the most verbose, and an hour of it is large.
sed -e 's/"logLevel": "1"/"logLevel": "0"/' "$src/packaging/sample/SWGConfig.json" >"$conf/SWGConfig.json"
[ -d "$bin/data/trevo/trevoclient" ] && cp -r "$bin/data/trevo/trevoclient/." "$data/trevo/trevoclient/"
preload=""
if [ "${SWG_SOAK_OWNED:-0}" != 1 ] && [ -f "$standin" ]; then
    preload="LD_PRELOAD=$standin SWG_TEST_NFT_REFUSE=owner"
fi
# shellcheck disable=SC2086
world_spawn "$client" "$WORLD_WORK/agent.log" env $preload SWG_DATA_ROOT="$data" SWG_LOG_STDERR=1 \
    ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}:quarantine_size_mb=16" "$agent" -console
agent_pid=$WORLD_LAST_PID
world_wait_for "$WORLD_WORK/agent.log" "Redirector: table inet tsc_swg in force" 60 || exit 1
world_wait_ipv4_diverted || exit 1
# A plug-in attached, as on a desktop: without one each state word is logged as an error.
world_spawn "$client" "$WORLD_WORK/status.out" env SWG_DATA_ROOT="$data" "$status" --watch

# Memory may grow by a quarter of what the warm-up left, at least 32 MiB: allocator caches
# and the sanitizer's own bookkeeping, not a leak, which grows with the run.
cat >"$WORLD_WORK/drive.json" <<EOF
{"agent_pid": $agent_pid, "gateway_pid": $WORLD_GATEWAY_PID, "client_ns": "$client", "inet_ns": "$inet",
 "work": "$WORLD_WORK", "out": "$out", "duration": $duration, "warmup": 15,
 "workers": ${SWG_SOAK_WORKERS:-12}, "burst": ${SWG_SOAK_BURST:-700}, "burst_every": ${SWG_SOAK_BURST_EVERY:-40},
 "gateway_cmd": ["$gateway", "--listen", "198.18.0.10:443", "--listen", "198.18.0.10:80", "--key", "$key",
                 "--max-connections", "1024"],
 "config": "$conf/SWGConfig.json", "agent_log": "$WORLD_WORK/agent.log", "peers": "$here/soak_peers.py", "settle_s": 8,
 "fd_slack": 4, "thread_slack": 2, "rss_slack_kib": ${SWG_SOAK_RSS_SLACK_KIB:-0}}
EOF
python3 "$here/soak_drive.py" "$WORLD_WORK/drive.json"
result=$?

# SIGHUP is in the agent's termination table: it is the stop, last.
kill -HUP "$agent_pid" 2>/dev/null
i=0
while kill -0 "$agent_pid" 2>/dev/null && [ $i -lt 300 ]; do sleep 0.1; i=$((i + 1)); done
verdict="$WORLD_WORK/stop.txt"
fail() { echo "FAIL: $*" >>"$verdict"; result=1; }
: >"$verdict"
if kill -0 "$agent_pid" 2>/dev/null; then
    fail "the agent still runs 30 s after SIGHUP"
else
    wait "$agent_pid"
    code=$?
    [ $code -eq 0 ] || fail "the agent exited with $code after SIGHUP"
fi
world_table_present && fail "the table is still there after SIGHUP"
starts=$(grep -c "Service started successfully" "$WORLD_WORK/agent.log")
[ "$starts" -eq 1 ] || fail "the agent started $starts times"
if grep -q "Sanitizer\|runtime error:" "$WORLD_WORK/agent.log"; then
    fail "the sanitizers reported:"
    grep -A30 -m3 "Sanitizer\|runtime error:" "$WORLD_WORK/agent.log" >>"$verdict"
fi
[ $result -eq 0 ] && echo "stop: SIGHUP ended the agent with status 0 and its table gone" >>"$verdict"
tee -a "$out/summary.txt" <"$verdict"
cp "$WORLD_WORK/agent.log" "$out/agent.log" 2>/dev/null
echo "summary, plot and samples in $out"
exit $result
