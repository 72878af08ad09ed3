#!/bin/sh
# A self-contained demonstration of the agent carrying real traffic.
#
# Two network namespaces stand in for a laptop and the internet:
#
#   swgdemo-client  198.18.1.2   the agent (tsc_swgagent -console) diverting the host's
#                                outgoing web traffic with nftables, and curl as the user
#   swgdemo-inet    198.18.1.1   origin web servers www.demo.test (198.18.0.20, HTTP)
#                                and secure.demo.test (198.18.0.21, HTTPS), and the
#                                test gateway gateway.swg.test (198.18.0.10, ports 80/443)
#
# The script builds what it needs, starts everything, sends requests with curl, shows
# what the gateway saw and what the agent logged, and removes it all again, also when
# interrupted. Run as root. Exit status 0 when the traffic went through the gateway.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
    echo "demo: run as root (it creates network namespaces and nftables rules)" >&2
    exit 1
fi

CLIENT=swgdemo-client
INET=swgdemo-inet
work=$(mktemp -d /tmp/swgdemo.XXXXXX)
pids=""

cleanup() {
    set +e
    for p in $pids; do kill -TERM "$p" 2>/dev/null; done
    sleep 0.5
    for p in $pids; do kill -KILL "$p" 2>/dev/null; done
    ip netns del "$CLIENT" 2>/dev/null
    ip netns del "$INET" 2>/dev/null
    rm -rf "/etc/netns/$CLIENT"
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step() { printf '\n==== %s\n' "$*"; }

step "Installing packages and building (release)"
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tsc_swgagent swg-test-gateway swg_catalogs
bin="$root/build/release"
agent="$bin/src/tsc_swgagent"
gateway="$bin/tools/test-gateway/swg-test-gateway"

step "Creating the namespaces: $CLIENT (the laptop) and $INET (the internet)"
ip netns del "$CLIENT" 2>/dev/null || true
ip netns del "$INET" 2>/dev/null || true
ip netns add "$CLIENT"
ip netns add "$INET"
ip link add swgc0 netns "$CLIENT" type veth peer name swgi0 netns "$INET"
ip -n "$CLIENT" link set lo up
ip -n "$CLIENT" addr add 198.18.1.2/24 dev swgc0
ip -n "$CLIENT" link set swgc0 up
ip -n "$CLIENT" route add 198.18.0.0/24 via 198.18.1.1
ip -n "$INET" link set lo up
ip -n "$INET" addr add 198.18.1.1/24 dev swgi0
ip -n "$INET" link set swgi0 up
ip -n "$INET" link add swgd0 type dummy
ip -n "$INET" link set swgd0 up
for a in 198.18.0.10 198.18.0.20 198.18.0.21; do ip -n "$INET" addr add "$a/32" dev swgd0; done

# Names for the laptop: ip netns exec mounts these over /etc/hosts and /etc/resolv.conf.
mkdir -p "/etc/netns/$CLIENT"
cat >"/etc/netns/$CLIENT/hosts" <<HOSTS
127.0.0.1 localhost
198.18.0.10 gateway.swg.test
198.18.0.20 www.demo.test
198.18.0.21 secure.demo.test
HOSTS
echo "nameserver 127.0.0.1" >"/etc/netns/$CLIENT/resolv.conf"

step "Starting the origin servers and the test gateway in $INET"
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=secure.demo.test" \
    -keyout "$work/origin.key" -out "$work/origin.crt" 2>/dev/null
ip netns exec "$INET" python3 scripts/demo/origin_server.py --bind 198.18.0.20 --port 80 \
    --title "www.demo.test" >"$work/origin-http.log" 2>&1 &
pids="$pids $!"
ip netns exec "$INET" python3 scripts/demo/origin_server.py --bind 198.18.0.21 --port 443 \
    --title "secure.demo.test" --cert "$work/origin.crt" --key "$work/origin.key" \
    >"$work/origin-https.log" 2>&1 &
pids="$pids $!"
ip netns exec "$INET" "$gateway" --listen 198.18.0.10:443 --listen 198.18.0.10:80 \
    --key packaging/sample/licence-test-private.pem --log "$work/gateway.log" \
    >"$work/gateway.out" 2>&1 &
pids="$pids $!"

wait_for() {  # file pattern seconds
    i=0
    while [ $i -lt $(($3 * 10)) ]; do
        grep -q "$2" "$1" 2>/dev/null && return 0
        sleep 0.1
        i=$((i + 1))
    done
    echo "demo: timed out waiting for '$2' in $1" >&2
    cat "$1" >&2 || true
    exit 1
}
wait_for "$work/gateway.out" "ready" 10
wait_for "$work/origin-http.log" "ready" 10
wait_for "$work/origin-https.log" "ready" 10

step "Starting the agent in $CLIENT with the sample configuration"
data="$work/data"
mkdir -p "$data/trevo/trevoclient/tarnwall/SWG"
cp packaging/sample/SWGConfig.json "$data/trevo/trevoclient/tarnwall/SWG/"
if [ -d "$bin/data/trevo/trevoclient" ]; then
    cp -r "$bin/data/trevo/trevoclient/." "$data/trevo/trevoclient/"
fi
ip netns exec "$CLIENT" env SWG_DATA_ROOT="$data" SWG_LOG_STDERR=1 "$agent" -console \
    >"$work/agent.out" 2>"$work/agent.log" &
agent_pid=$!
pids="$pids $agent_pid"
wait_for "$work/agent.log" "Service started successfully" 30
wait_for "$work/agent.log" "SocketRedirectorApi->Start success\|SetRedirects returned 0" 30
echo "agent is up; its nftables table in $CLIENT:"
ip netns exec "$CLIENT" nft list table inet tsc_swg | head -40

step "curl http://www.demo.test/ from the laptop (plain HTTP, diverted to the agent)"
ip netns exec "$CLIENT" curl -sS --max-time 20 http://www.demo.test/hello | tee "$work/curl-http.out"

step "curl https://secure.demo.test/ from the laptop (TLS, tunnelled with CONNECT)"
ip netns exec "$CLIENT" curl -sS -k --max-time 20 https://secure.demo.test/secret | tee "$work/curl-https.out"

step "What the gateway saw"
cat "$work/gateway.log"

step "What the agent logged (connection lines)"
grep -E "Connection|Listener|Service|Redirect" "$work/agent.log" | sed 's/^/  /' | tail -40

step "Stopping the agent (SIGTERM)"
kill -TERM "$agent_pid"
i=0
while kill -0 "$agent_pid" 2>/dev/null && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
if ip netns exec "$CLIENT" nft list table inet tsc_swg >/dev/null 2>&1; then
    echo "the agent's table is still there after stop" >&2
    exit 1
fi
echo "agent stopped; its nftables table is gone"

ok=1
grep -q "www.demo.test" "$work/curl-http.out" || { echo "HTTP page missing" >&2; ok=0; }
grep -q "secure.demo.test" "$work/curl-https.out" || { echo "HTTPS page missing" >&2; ok=0; }
grep -q "HTTP GET" "$work/gateway.log" || { echo "gateway did not see the HTTP request" >&2; ok=0; }
grep -q "CONNECT 198.18.0.21:443" "$work/gateway.log" || { echo "gateway did not see the CONNECT" >&2; ok=0; }
grep -q "licence ok" "$work/gateway.log" || { echo "gateway did not read a licence header" >&2; ok=0; }
if [ $ok -ne 1 ]; then exit 1; fi

step "Done: both requests were carried through the gateway"
