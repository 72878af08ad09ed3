#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Peer benchmark: the agent against redsocks and against no relay at all, through the same
# gateway, to the same origin, in one run. Run as root; never part of CI.
#
# Namespaces (names carry this script's pid, so parallel runs never meet):
#   <p>-origin   198.18.2.2     nginx on :80, iperf3 on :443
#   <p>-gw       198.18.0.10    swg-bench-gateway on :80 and :443 (CONNECT, header block);
#                               also routes the direct client's packets to the origin
#   <p>-direct   198.18.11.2    client, no diversion
#   <p>-agent    198.18.12.2    client, tsc_swgagent with its own nftables diversion
#   <p>-redsocks 198.18.13.2    client, redsocks (http-connect to the gateway's :443), an
#                               nftables redirect of ports 80 and 443 to it
#   <p>-base     198.18.14.2    client, a second agent binary (SWG_BENCH_AGENT_BASE), if given
#
# Every figure is measured once per setup per round, the setups taking turns, so that the
# machine's load falls on all of them alike; the table shows medians over the rounds.
#   bulk       iperf3, one stream each way through port 443 (a CONNECT tunnel for the relays),
#              and the relay process's CPU time (utime + stime) per GB
#   rates      wrk to http://198.18.2.2/ (a 612-byte page), keep-alive and one connection per
#              request (Connection: close), 50 clients and 1, with p50 and p99
#   memory     growth of the relay's resident set while SWG_BENCH_HOLD connections are held
#
# Environment: SWG_BENCH_ROUNDS (3), SWG_BENCH_SECONDS (8, per wrk run), SWG_BENCH_BULK_SECONDS
# (5, per iperf3 run), SWG_BENCH_HOLD (200), SWG_BENCH_AGENT (build/release/src/tsc_swgagent),
# SWG_BENCH_AGENT_BASE (unset), SWG_BENCH_GATEWAY (light, or "test" for swg-test-gateway),
# SWG_BENCH_OUT (build/peer-bench/<time>; raw outputs are kept there), SWG_BENCH_PAUSE (seconds
# to keep everything up without measuring, for profiling by hand).
set -eu
cd "$(dirname "$0")/../.."
root=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
    echo "peer-bench: run as root (namespaces, nftables)" >&2
    exit 1
fi

ROUNDS=${SWG_BENCH_ROUNDS:-3}
WRK_SECONDS=${SWG_BENCH_SECONDS:-8}
BULK_SECONDS=${SWG_BENCH_BULK_SECONDS:-5}
HOLD=${SWG_BENCH_HOLD:-200}
GATEWAY_KIND=${SWG_BENCH_GATEWAY:-light}
AGENT=${SWG_BENCH_AGENT:-$root/build/release/src/tsc_swgagent}
BASE=${SWG_BENCH_AGENT_BASE:-}
OUT=${SWG_BENCH_OUT:-$root/build/peer-bench/$(date +%Y%m%d-%H%M%S)}
P=pb$$
W=$(mktemp -d /tmp/peer-bench.XXXXXX)
chmod 755 "$W"  # nginx workers run as an unprivileged user
ORIGIN=198.18.2.2
GATEWAY=198.18.0.10
# world_spawn, world_wait_for and world_stop_spawned; the namespaces here are the bench's own.
. "$root/scripts/lib/world.sh"

SETUPS="direct agent redsocks"
[ -n "$BASE" ] && SETUPS="direct agent base redsocks"

cleanup() {
    set +e
    world_stop_spawned 0.5
    for n in origin gw direct agent redsocks base; do
        ip netns del "$P-$n" 2>/dev/null
        rm -rf "/etc/netns/$P-$n"
    done
    rm -rf "$W"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { printf '== %s\n' "$*"; }
in_ns() {
    n=$1
    shift
    ip netns exec "$P-$n" "$@"
}
# spawn NS LOG COMMAND...: runs COMMAND in the background in namespace NS.
spawn() {
    n=$1
    shift
    world_spawn "$P-$n" "$@"
    LAST=$WORLD_LAST_PID
}
wait_for() { world_wait_for "$@"; }

build() {
    say "building (release)"
    cmake --preset release >/dev/null
    targets="tsc_swgagent swg-status swg-bench-gateway swg_catalogs"
    [ "$GATEWAY_KIND" = test ] && targets="$targets swg-test-gateway"
    # shellcheck disable=SC2086
    cmake --build --preset release --target $targets >/dev/null
}

# Every run of one connection per request leaves tens of thousands of ends in TIME_WAIT (wrk
# closes first, and so does each relay's outgoing leg); with the default 28,000 ports and no
# reuse, a namespace ran out of them after a few seconds at 4,000 connections a second, and
# whichever setup came next was measured waiting for ports.
wide_ports() {
    in_ns "$1" sysctl -qw net.ipv4.ip_local_port_range="1024 65535" net.ipv4.tcp_tw_reuse=1
}

make_namespaces() {
    say "namespaces $P-*"
    for n in origin gw; do ip netns add "$P-$n"; done
    wide_ports gw
    ip -n "$P-gw" link set lo up
    ip -n "$P-gw" addr add "$GATEWAY/32" dev lo
    in_ns gw sysctl -qw net.ipv4.ip_forward=1
    ip link add o0 netns "$P-origin" type veth peer name o0 netns "$P-gw"
    ip -n "$P-origin" link set lo up
    ip -n "$P-origin" addr add "$ORIGIN/24" dev o0
    ip -n "$P-origin" link set o0 up
    ip -n "$P-origin" route add 198.18.0.0/15 via 198.18.2.1
    ip -n "$P-gw" addr add 198.18.2.1/24 dev o0
    ip -n "$P-gw" link set o0 up
    k=11
    for s in $SETUPS; do
        ip netns add "$P-$s"
        wide_ports "$s"
        ip link add c0 netns "$P-$s" type veth peer name "c$k" netns "$P-gw"
        ip -n "$P-$s" link set lo up
        ip -n "$P-$s" addr add "198.18.$k.2/24" dev c0
        ip -n "$P-$s" link set c0 up
        ip -n "$P-$s" route add default via "198.18.$k.1"
        ip -n "$P-gw" addr add "198.18.$k.1/24" dev "c$k"
        ip -n "$P-gw" link set "c$k" up
        # No name lookup leaves the namespaces.
        mkdir -p "/etc/netns/$P-$s"
        echo "127.0.0.1 localhost" >"/etc/netns/$P-$s/hosts"
        echo "nameserver 127.0.0.1" >"/etc/netns/$P-$s/resolv.conf"
        k=$((k + 1))
    done
}

start_origin() {
    mkdir -p "$W/www"
    # 612 bytes, the size of a small page.
    python3 -c "import sys; sys.stdout.write('<html><body>' + 'x' * 585 + '</body></html>\n')" >"$W/www/index.html"
    cat >"$W/nginx.conf" <<EOF
worker_processes 1;
pid $W/nginx.pid;
error_log $W/nginx-error.log warn;
daemon off;
events { worker_connections 8192; }
http {
    access_log off;
    sendfile on;
    tcp_nodelay on;
    keepalive_timeout 300s;
    keepalive_requests 100000000;
    server {
        listen $ORIGIN:80 backlog=4096;
        root $W/www;
    }
}
EOF
    spawn origin "$W/nginx.log" nginx -p "$W" -c "$W/nginx.conf"
    spawn origin "$W/iperf3.log" iperf3 -s -B "$ORIGIN" -p 443
    sleep 0.5
}

start_gateway() {
    if [ "$GATEWAY_KIND" = test ]; then
        spawn gw "$W/gateway.log" "$root/build/release/tools/test-gateway/swg-test-gateway" \
            --listen "$GATEWAY:80" --listen "$GATEWAY:443" --max-connections 600
    else
        spawn gw "$W/gateway.log" "$root/build/release/bench/swg-bench-gateway" "$GATEWAY:80" "$GATEWAY:443"
    fi
    GATEWAY_PID=$LAST
    wait_for "$W/gateway.log" ready 10
}

# start_agent SETUP BINARY: the agent of a client namespace, with the sample configuration
# pointed at the bench gateway and at the default log level (the sample's is the most verbose).
start_agent() {
    data="$W/data-$1"
    world_agent_data "$data" "$root/build/release"
    sed -e "s/\"swgDomain\": \"[^\"]*\"/\"swgDomain\": \"$GATEWAY\"/" \
        -e "s/\"198.18.0.10\"/\"$GATEWAY\"/" -e "s/\"logLevel\": \"1\"/\"logLevel\": \"0\"/" \
        "$root/packaging/sample/SWGConfig.json" >"$data/trevo/trevoclient/tarnwall/SWG/SWGConfig.json"
    spawn "$1" "$W/$1.log" sh -c "ulimit -n 65536; exec env SWG_DATA_ROOT='$data' SWG_LOG_STDERR=1 '$2' -console"
    eval "RELAY_$1=$LAST"
    wait_for "$W/$1.log" "Redirector: table inet tsc_swg in force" 30
    # A desktop has its UI plug-in attached; without one every connection's state word would
    # be logged as an error ("IPC is not yet up."), and that log would be measured too.
    spawn "$1" "$W/status-$1.log" "$root/build/release/tools/status/swg-status" --watch
    wait_for "$W/status-$1.log" "gateway" 10
}

start_redsocks() {
    cat >"$W/redsocks.conf" <<EOF
base {
    log_debug = off;
    log_info = off;
    log = stderr;
    daemon = off;
    redirector = iptables;
    redsocks_conn_max = 8192;
}
redsocks {
    local_ip = 127.0.0.1;
    local_port = 12345;
    ip = $GATEWAY;
    port = 443;
    type = http-connect;
}
EOF
    in_ns redsocks nft -f - <<EOF
table ip peer_bench {
    chain output {
        type nat hook output priority -100; policy accept;
        ip daddr 198.18.2.0/24 tcp dport { 80, 443 } redirect to :12345
    }
}
EOF
    spawn redsocks "$W/redsocks.log" sh -c "ulimit -n 65536; exec redsocks -c '$W/redsocks.conf'"
    RELAY_redsocks=$LAST
    sleep 0.5
    kill -0 "$RELAY_redsocks"
}

relay_pid() {
    case $1 in
        direct) echo "" ;;
        *) eval "echo \$RELAY_$1" ;;
    esac
}

# The process's own pid inside `ip netns exec` is the command's: exec replaces the shell.
cpu_ticks() {
    [ -n "$1" ] || {
        echo -
        return
    }
    awk '{print $14 + $15}' "/proc/$1/stat"
}
rss_kib() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }

# bulk SETUP ROUND DIRECTION(up|down)
bulk() {
    relay=$(relay_pid "$1")
    before=$(cpu_ticks "$relay")
    gw_before=$(cpu_ticks "$GATEWAY_PID")
    reverse=""
    [ "$3" = down ] && reverse=-R
    timeout $((BULK_SECONDS + 30)) ip netns exec "$P-$1" iperf3 -c "$ORIGIN" -p 443 \
        -t "$BULK_SECONDS" -J $reverse >"$OUT/raw/$1-bulk-$3-$2.json" 2>&1 || true
    after=$(cpu_ticks "$relay")
    gw_after=$(cpu_ticks "$GATEWAY_PID")
    used=-
    [ "$before" != - ] && used=$((after - before))
    echo "$1 bulk-$3 $2 $used $((gw_after - gw_before))" >>"$OUT/raw/cpu.txt"
}

# rate SETUP ROUND KIND(keepalive|per-request) CLIENTS
rate() {
    threads=2
    [ "$4" -eq 1 ] && threads=1
    if [ "$3" = per-request ]; then
        set -- "$@" -H "Connection: close"
    fi
    setup=$1
    round=$2
    kind=$3
    clients=$4
    shift 4
    timeout $((WRK_SECONDS + 30)) ip netns exec "$P-$setup" wrk -t"$threads" -c"$clients" \
        -d"${WRK_SECONDS}s" --latency "$@" "http://$ORIGIN/" \
        >"$OUT/raw/$setup-$kind-$clients-$round.txt" 2>&1 || true
}

# memory SETUP ROUND
memory() {
    relay=$(relay_pid "$1")
    [ -n "$relay" ] || return 0
    ready="$W/hold-$1-$2"
    before=$(rss_kib "$relay")
    # ip netns exec replaces itself with the holder, which lets go on SIGTERM (or after 60 s).
    ip netns exec "$P-$1" python3 "$root/bench/peer/hold_connections.py" "$ORIGIN" 80 \
        "$HOLD" "$ready" &
    holder=$!
    i=0
    while [ ! -s "$ready" ] && [ $i -lt 600 ] && kill -0 "$holder" 2>/dev/null; do
        sleep 0.1
        i=$((i + 1))
    done
    sleep 1
    after=$(rss_kib "$relay")
    held=$(cat "$ready" 2>/dev/null || echo 0)
    kill "$holder" 2>/dev/null || true
    wait "$holder" 2>/dev/null || true
    echo "$1 $2 $held $before $after" >>"$OUT/raw/memory.txt"
    # Let the relay's idle threads or connections go before the next figure.
    sleep 4
}

rotate() {
    # The setups in turn, starting at a different one each round.
    n=$1
    shift
    i=0
    for s in "$@"; do
        [ $i -ge "$n" ] && printf '%s ' "$s"
        i=$((i + 1))
    done
    i=0
    for s in "$@"; do
        [ $i -lt "$n" ] && printf '%s ' "$s"
        i=$((i + 1))
    done
}

./scripts/install-deps.sh --bench
build
mkdir -p "$OUT/raw"
echo "$SETUPS" >"$OUT/raw/setups"
: >"$OUT/raw/cpu.txt"
: >"$OUT/raw/memory.txt"
{
    echo "machine: $(uname -srm), $(nproc) cores; gateway: $GATEWAY_KIND"
    echo "agent: $AGENT ($(cd "$root" && git describe --always --dirty 2>/dev/null || echo unknown))"
    [ -n "$BASE" ] && echo "base: $BASE"
    echo "rounds $ROUNDS, wrk ${WRK_SECONDS}s, iperf3 ${BULK_SECONDS}s, hold $HOLD"
} >"$OUT/raw/machine.txt"
: >"$OUT/raw/load.txt"

make_namespaces
start_origin
start_gateway
start_agent agent "$AGENT"
[ -n "$BASE" ] && start_agent base "$BASE"
start_redsocks

if [ -n "${SWG_BENCH_PAUSE:-}" ]; then
    # For profiling by hand: everything stays up for that many seconds, then goes.
    say "up for ${SWG_BENCH_PAUSE}s: namespaces $P-*, relay pids agent=$RELAY_agent redsocks=$RELAY_redsocks"
    sleep "$SWG_BENCH_PAUSE"
    exit 0
fi

say "rounds: $ROUNDS; setups: $SETUPS; results in $OUT"
r=1
while [ $r -le "$ROUNDS" ]; do
    echo "round $r start: $(uptime)" >>"$OUT/raw/load.txt"
    # shellcheck disable=SC2086
    order=$(rotate $((r % $(echo $SETUPS | wc -w))) $SETUPS)
    say "round $r ($order)"
    for dir in up down; do
        for s in $order; do bulk "$s" "$r" "$dir"; done
    done
    for kind in per-request keepalive; do
        for clients in 50 1; do
            for s in $order; do rate "$s" "$r" "$kind" "$clients"; done
        done
    done
    for s in $order; do memory "$s" "$r"; done
    echo "round $r end:   $(uptime)" >>"$OUT/raw/load.txt"
    r=$((r + 1))
done

cat "$OUT/raw/machine.txt"
python3 "$root/bench/peer/peer_report.py" "$OUT"
