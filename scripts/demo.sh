#!/bin/sh
# A self-contained demonstration of the agent carrying real traffic.
#
# Two network namespaces stand in for a laptop and the internet (scripts/lib/world.sh):
# the laptop runs the agent (tsc_swgagent -console), which diverts the host's outgoing
# web traffic to itself with nftables, and curl as the user; the internet runs origin web
# servers (www.demo.test over HTTP, secure.demo.test over HTTPS) and the test gateway
# (gateway.swg.test). The script builds what it needs, starts everything, asks the agent for
# its state with swg-status, sends requests, shows what the gateway saw, what the agent logged
# and what swg-status says now, and removes it all again, also when interrupted. Run as root.
# Exit status 0 when the traffic went through the gateway and the agent counted it.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
    echo "demo: run as root (it creates network namespaces and nftables rules)" >&2
    exit 1
fi

WORLD=swgdemo
WORLD_WORK=$(mktemp -d /tmp/swgdemo.XXXXXX)
. "$root/scripts/lib/world.sh"

cleanup() {
    set +e
    world_destroy
    rm -rf "$WORLD_WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step() { printf '\n==== %s\n' "$*"; }

step "Installing packages and building (release)"
./scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tsc_swgagent swg-test-gateway swg-status swg_catalogs
bin="$root/build/release"

step "Creating the namespaces: $(world_client) (the laptop) and $(world_inet) (the internet)"
world_create

step "Starting the origin servers and the test gateway in $(world_inet)"
world_start_origins "$root"
world_start_gateway "$bin/tools/test-gateway/swg-test-gateway" "$root/packaging/sample/licence-test-private.pem"

step "Starting the agent in $(world_client) with the sample configuration"
data="$WORLD_WORK/data"
world_agent_data "$data" "$bin"
cp packaging/sample/SWGConfig.json "$data/trevo/trevoclient/tarnwall/SWG/"
world_start_agent "$bin/src/tsc_swgagent" "$data"
echo "the agent is up; its nftables table in $(world_client):"
ip netns exec "$(world_client)" nft list table inet tsc_swg | sed 's/^/    /'

# swg-status speaks the plug-in channel on the laptop's 127.0.0.1:5004 and reads the state file
# under the same data path as the agent.
status() {
    ip netns exec "$(world_client)" env SWG_DATA_ROOT="$data" "$bin/tools/status/swg-status" "$@"
}

step "swg-status on the laptop, before any request"
status | tee "$WORLD_WORK/status-before.out" | sed 's/^/    /'

step "curl http://www.demo.test/hello from the laptop (plain HTTP, diverted to the agent)"
world_curl http://www.demo.test/hello | tee "$WORLD_WORK/curl-http.out"

step "curl https://secure.demo.test/secret from the laptop (TLS, tunnelled with CONNECT)"
world_curl -k https://secure.demo.test/secret | tee "$WORLD_WORK/curl-https.out"

step "What the gateway saw"
sed 's/^/    /' "$WORLD_WORK/gateway.log"

step "What the agent logged about the two connections"
grep -E "Connection ?:" "$WORLD_WORK/agent.log" | sed 's/^/    /' | tail -40

step "swg-status after the two requests: one HTTP and one HTTPS connection counted"
status | tee "$WORLD_WORK/status-after.out" | sed 's/^/    /'

step "Stopping the agent (SIGTERM)"
kill -TERM "$WORLD_AGENT_PID"
i=0
while kill -0 "$WORLD_AGENT_PID" 2>/dev/null && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
if world_table_present; then
    echo "the agent's table is still there after stop" >&2
    exit 1
fi
echo "the agent stopped and its nftables table is gone; the laptop now reaches the web directly:"
world_curl http://www.demo.test/direct >/dev/null
tail -n 1 "$WORLD_WORK/origin-www.log" | sed 's/^/    /'

ok=1
grep -q "You asked for /hello on www.demo.test" "$WORLD_WORK/curl-http.out" || { echo "the HTTP page is missing" >&2; ok=0; }
grep -q "You asked for /secret on secure.demo.test" "$WORLD_WORK/curl-https.out" || { echo "the HTTPS page is missing" >&2; ok=0; }
grep -q "result forward" "$WORLD_WORK/gateway.log" || { echo "the gateway did not forward the HTTP request" >&2; ok=0; }
grep -q "HTTP GET www.demo.test" "$WORLD_WORK/gateway.log" || { echo "the gateway did not see the HTTP request" >&2; ok=0; }
grep -q "CONNECT 198.18.0.21:443" "$WORLD_WORK/gateway.log" || { echo "the gateway did not see the CONNECT" >&2; ok=0; }
grep -q "licence ok" "$WORLD_WORK/gateway.log" || { echo "the gateway did not read a licence header" >&2; ok=0; }
grep -qx "state:     protected" "$WORLD_WORK/status-before.out" || { echo "swg-status did not say protected" >&2; ok=0; }
grep -qx "http:      0" "$WORLD_WORK/status-before.out" || { echo "swg-status counted HTTP before any request" >&2; ok=0; }
for line in "state:     protected" "http:      1" "https:     1" "bypassed:  0"; do
    grep -qx "$line" "$WORLD_WORK/status-after.out" || { echo "swg-status after the requests lacks '$line'" >&2; ok=0; }
done
[ $ok -eq 1 ] || exit 1

step "Done: both requests were carried through the gateway, with the organisation's licence header, and counted"
