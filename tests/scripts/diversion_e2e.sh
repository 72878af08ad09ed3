#!/bin/sh
# End to end, with real diversion: the agent in a laptop namespace diverts the laptop's
# own outgoing connections with nftables and carries them through the test gateway in an
# internet namespace (scripts/lib/world.sh). Checks: ports 80 and 443 go through the
# gateway; an excepted host and a private-range host go direct; the agent's own gateway
# connections are not diverted back to it; a monitored port added to the configuration
# takes effect on reload without a restart; other programs cannot remove the table; a name
# excepted before it resolves is enforced once it does; after SIGTERM the table is gone and
# the laptop reaches the hosts directly.
# Needs root, nft, python3, curl and openssl; exits 77 (skipped) otherwise.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
world_test swge2e
gateway_saw() { grep -q "$1" "$WORLD_WORK/gateway.log"; }
origin_saw_laptop() { grep "from 198.18.1.2" "$WORLD_WORK/origin-$1.log" | grep -q "$2"; }

# The sample configuration with an excepted host, written by the laptop's "management".
data="$WORLD_WORK/data"
agent_data "$data"
write_config() {  # extra monitored ports as a JSON array
    python3 - "$SWG_SOURCE_DIR/packaging/sample/SWGConfig.json" "$conf/SWGConfig.json.new" "$1" <<'PY'
import json, sys
config = json.load(open(sys.argv[1]))
config["orgConfig"]["exceptionList"] = ["198.18.0.30", "late.demo.test"]
config["orgConfig"]["webTrafficMonitorPorts"] = json.loads(sys.argv[3])
json.dump(config, open(sys.argv[2], "w"), indent=2)
PY
    mv "$conf/SWGConfig.json.new" "$conf/SWGConfig.json"
}
write_config '[]'
world_start_agent "$SWG_BINARY_DIR/src/tsc_swgagent" "$data" || { cat "$WORLD_WORK/agent.log"; exit 1; }

# Through the gateway.
out=$(world_curl http://www.demo.test/e2e-http)
check "HTTP page arrives" sh -c "echo '$out' | grep -q 'You asked for /e2e-http on www.demo.test'"
check "the gateway carried the HTTP request" gateway_saw "HTTP GET www.demo.test/e2e-http"
check "the gateway read the licence header" gateway_saw "licence ok org=sample-org-0001 device=sample-device-0001"
check "the gateway forwarded the HTTP request to the origin" gateway_saw "result forward"
out=$(world_curl -k https://secure.demo.test/e2e-tls)
check "HTTPS page arrives" sh -c "echo '$out' | grep -q 'You asked for /e2e-tls on secure.demo.test'"
check "the gateway carried the TLS connection" gateway_saw "CONNECT 198.18.0.21:443"
check "the origin saw the request from the gateway, not the laptop" sh -c \
    "grep 'e2e-http' '$WORLD_WORK/origin-www.log' | grep -qv 'from 198.18.1.2'"

# Not diverted.
world_curl http://exempt.demo.test/e2e-exempt >/dev/null
check "an excepted host is reached directly" origin_saw_laptop exempt e2e-exempt
check "the gateway never saw the excepted host" sh -c "! grep -q exempt.demo.test '$WORLD_WORK/gateway.log'"
world_curl http://private.demo.test/e2e-private >/dev/null
check "a private-range host is reached directly" origin_saw_laptop private e2e-private
check "the agent's own connections were not looped back" sh -c "! grep -q 'looped connection' '$WORLD_WORK/agent.log'"

# A monitored port added by a configuration reload.
world_curl http://www.demo.test:8080/e2e-before >/dev/null
check "port 8080 is not monitored at first" origin_saw_laptop www8080 e2e-before
restarts=$(grep -c "SocketRedirectorApi->Start success" "$WORLD_WORK/agent.log")
write_config '["8080"]'
check "the reload restarts the redirector" world_wait_for "$WORLD_WORK/agent.log" \
    "inclusons/exceptions/listenports changed so reinit kdf interface" 15
i=0
while [ "$(grep -c "SocketRedirectorApi->Start success" "$WORLD_WORK/agent.log")" -le "$restarts" ] && [ $i -lt 200 ]; do
    sleep 0.05; i=$((i + 1))
done
sleep 0.5
out=$(world_curl http://www.demo.test:8080/e2e-after)
check "port 8080 goes through the gateway after the reload" gateway_saw "HTTP GET www.demo.test:8080/e2e-after"
check "the page on port 8080 arrives" sh -c "echo '$out' | grep -q 'You asked for /e2e-after'"
check "the agent was not restarted for it" sh -c "[ \$(grep -c 'Service started successfully' '$WORLD_WORK/agent.log') -eq 1 ]"

# The table is the agent's own: another program can neither delete nor flush it.
check "another program cannot delete the table" sh -c \
    "! ip netns exec $(world_client) nft delete table inet tsc_swg 2>/dev/null"
check "another program cannot flush the table" sh -c \
    "! ip netns exec $(world_client) nft flush table inet tsc_swg 2>/dev/null"
out=$(world_curl http://www.demo.test/e2e-still)
check "traffic still goes through the gateway" gateway_saw "HTTP GET www.demo.test/e2e-still"

# A name of the exception list that the laptop's resolver did not know at the start is
# enforced once it resolves, without a restart (its look-ups back off to at most 30 s).
echo "198.18.0.20 late.demo.test" >>"/etc/netns/$(world_client)/hosts"
i=0
while [ $i -lt 45 ]; do
    world_curl "http://www.demo.test/e2e-late-$i" >/dev/null
    origin_saw_laptop www "e2e-late-$i" && break
    sleep 1; i=$((i + 1))
done
check "a name that resolves late becomes an exception" origin_saw_laptop www "e2e-late-$i"

# Stop: the table goes, and the laptop reaches the web directly.
kill -TERM "$WORLD_AGENT_PID"
i=0
while kill -0 "$WORLD_AGENT_PID" 2>/dev/null && [ $i -lt 150 ]; do sleep 0.1; i=$((i + 1)); done
check "the agent exits after SIGTERM" sh -c "! kill -0 $WORLD_AGENT_PID 2>/dev/null"
check "the table is gone after SIGTERM" sh -c "! ip netns exec $(world_client) nft list table inet tsc_swg >/dev/null 2>&1"
world_curl http://www.demo.test/e2e-after-stop >/dev/null
check "after the stop the laptop reaches the host directly" origin_saw_laptop www e2e-after-stop

show_logs() {
    echo "---- agent log (tail)"; tail -n 60 "$WORLD_WORK/agent.log"
    echo "---- gateway log"; cat "$WORLD_WORK/gateway.log"
}
finish "all end-to-end checks passed" show_logs
