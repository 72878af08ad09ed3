#!/bin/sh
# Standing aside, with real diversion (scripts/lib/world.sh): a full-tunnel VPN written into
# the configuration backs the agent off when the plug-in asks for data: the state word says
# so, the table has no redirect and no QUIC rule, and the laptop reaches the web directly.
# The VPN disconnected brings the rules back; a split tunnel or the switch off changes
# nothing. A trusted server (openssl s_server in the internet namespace) with the right
# fingerprint backs off, a wrong one does not. On the trusted network, a new default route
# through a tunnel-like interface (a veth standing in for a tun device) that cannot reach the trusted server is re-evaluated about
# 5 s after it settles and returns the agent to protected; the route back backs off again.
# Needs root, nft, python3, curl and openssl; exits 77 (skipped) otherwise.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
src=$SWG_SOURCE_DIR
status="$SWG_BINARY_DIR/tools/status/swg-status"
need_built "$status"
world_test swgbo

log="$WORLD_WORK/agent.log"
client=$(world_client)
gateway_saw() { grep -q "$1" "$WORLD_WORK/gateway.log"; }
origin_saw_laptop() { grep "from 198.18.1.2" "$WORLD_WORK/origin-www.log" | grep -q "$1"; }
# The word the agent reports to a plug-in that asks for data (which evaluates backoff). A
# word is sent only when it differs from the last one sent, so "not backed off" is no
# backoff word and the rules in force.
state_is() {
    ip netns exec "$client" "$status" --json 2>/dev/null | grep -q "\"state\":\"$1\""
}
not_backed_off() { ! state_is "disabled[a-z_]*" && diverting; }
diverting() { ip netns exec "$client" nft list table inet tsc_swg 2>/dev/null | grep -q "redirect to"; }
rejecting_quic() { ip netns exec "$client" nft list table inet tsc_swg 2>/dev/null | grep -q "udp dport"; }
stands_aside() { ! diverting && ! rejecting_quic; }
count() { grep -c "$1" "$log"; }

# The configuration, as the laptop's management and VPN client would write it.
data="$WORLD_WORK/data"
agent_data "$data"
write_config() {  # JSON object of settings: orgConfig keys, "vpn4": [state, type]
    python3 - "$src/packaging/sample/SWGConfig.json" "$conf/SWGConfig.json.new" "$1" <<'PY'
import json, sys
config = json.load(open(sys.argv[1]))
for key, value in json.loads(sys.argv[3]).items():
    if key == "vpn4":
        config["vpnDetails"]["vpn_ipv4"] = {"state": value[0], "vpn_type": value[1]}
    else:
        config["orgConfig"][key] = value
json.dump(config, open(sys.argv[2], "w"), indent=2)
PY
    mv "$conf/SWGConfig.json.new" "$conf/SWGConfig.json"
}
# Writes the file and waits for the monitor to have taken it in.
reload_config() {
    before=$(count "UpdateCurrentConfig: ")
    write_config "$1"
    i=0
    while [ "$(count "UpdateCurrentConfig: ")" -le "$before" ] && [ $i -lt 200 ]; do
        sleep 0.05; i=$((i + 1))
    done
}
write_config '{}'

# The trusted server, reachable from the laptop only over the organisation's route.
inet=$(world_inet)
ip -n "$inet" addr add 198.18.0.40/32 dev lo
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=trusted.corp.test" \
    -keyout "$WORLD_WORK/trusted.key" -out "$WORLD_WORK/trusted.crt" 2>/dev/null
fingerprint=$(openssl x509 -in "$WORLD_WORK/trusted.crt" -noout -fingerprint -sha256 | sed 's/.*=//; s/://g')
world_spawn "$inet" "$WORLD_WORK/trusted.log" openssl s_server -accept 198.18.0.40:8443 -naccept 100 \
    -cert "$WORLD_WORK/trusted.crt" -key "$WORLD_WORK/trusted.key" -quiet
world_start_agent "$SWG_BINARY_DIR/src/tsc_swgagent" "$data" || { cat "$log"; exit 1; }

check "the plug-in is told protected" state_is protected
check "the table diverts" diverting

# A full tunnel: the first plug-in request after it backs off.
reload_config '{"backoffOnLMVpn": "1", "vpn4": ["connected", "tunnel_all"]}'
check "a full tunnel gives disabled_due_to_vpn" state_is disabled_due_to_vpn
check "the table has no redirect and no QUIC rule in backoff" stands_aside
world_curl http://www.demo.test/bo-vpn >/dev/null
check "the laptop reaches the web directly in backoff" origin_saw_laptop bo-vpn
check "the gateway never saw it" sh -c "! grep -q bo-vpn '$WORLD_WORK/gateway.log'"

reload_config '{"backoffOnLMVpn": "1", "vpn4": ["disconnected", ""]}'
check "the VPN disconnected gives protected" state_is protected
check "the rules are back" diverting
world_curl http://www.demo.test/bo-back >/dev/null
check "traffic goes through the gateway again" gateway_saw "HTTP GET www.demo.test/bo-back"

reload_config '{"backoffOnLMVpn": "1", "vpn4": ["connected", "split"]}'
check "a split tunnel gives no backoff" not_backed_off
reload_config '{"backoffOnLMVpn": "0", "vpn4": ["connected", "tunnel_all"]}'
check "the switch off gives no backoff" not_backed_off

# The customer's trusted server.
trusted() {  # fingerprint
    reload_config "{\"backoffOnCustomerTrustedNetwork\": \"1\", \"swgTrustedServer\": \"198.18.0.40\", \"swgTrustedServerPort\": 8443, \"swgTrustedServerFingerprint\": \"$1\"}"
}
trusted "$(echo "$fingerprint" | tr A-F a-f)00"
check "a wrong fingerprint gives no backoff" not_backed_off
trusted "$(echo "$fingerprint" | sed 's/../&:/g; s/:$//')"
check "a fingerprint with colons gives no backoff" not_backed_off
trusted "$(echo "$fingerprint" | tr A-F a-f)"
check "the right fingerprint, in any case, gives disabled_due_to_trusted_network" state_is disabled_due_to_trusted_network
check "the table stands aside on the trusted network" stands_aside

# Another network: a tunnel-like interface takes the default route, and the organisation's
# route goes. No plug-in asks; the settled change alone re-evaluates.
evaluations=$(count "Evaluating SWG backoff")
restarts=$(count "OnBackoffStateChange: KDF started successfully.")
ip -n "$client" link add vpn0 type veth peer name vpn0p
ip -n "$client" link set vpn0 up
ip -n "$client" link set vpn0p up
ip -n "$client" route del 198.18.0.0/24 via 198.18.1.1
ip -n "$client" route add default dev vpn0
changed_at=$(date +%s)
check "the new default route is noticed" world_wait_for "$log" "Primary interface changed IPv4 \[<none>\], \[<none>\] => \[0.0.0.0\], \[vpn0\]" 10
check "the settled change evaluates backoff" sh -c "i=0; while [ \$(grep -c 'Evaluating SWG backoff' '$log') -le $evaluations ] && [ \$i -lt 300 ]; do sleep 0.05; i=\$((i+1)); done; [ \$i -lt 300 ]"
waited=$(($(date +%s) - changed_at))
check "about 5 s after the change ($waited s)" sh -c "[ $waited -ge 4 ] && [ $waited -le 12 ]"
i=0
while ! diverting && [ $i -lt 200 ]; do sleep 0.05; i=$((i + 1)); done
check "off the trusted network the rules are back" diverting
check "the agent leaves backoff once" sh -c "[ \$(grep -c 'OnBackoffStateChange: KDF started successfully.' '$log') -eq $((restarts + 1)) ]"

# Back on the organisation's network.
ip -n "$client" route del default dev vpn0
ip -n "$client" route add 198.18.0.0/24 via 198.18.1.1
ip -n "$client" route add default via 198.18.1.1
i=0
while diverting && [ $i -lt 300 ]; do sleep 0.05; i=$((i + 1)); done
check "back on the trusted network the agent stands aside again" stands_aside

show_logs() {
    echo "---- agent log (network and backoff)"
    grep -E "Primary interface|IPAddr change|TakeActionOnAddrChange|OnBackoffStateChange|CSSLClient|CustomerTrustedNetwork|ListenForOSEvents" "$log"
    echo "---- agent log (tail)"; tail -n 40 "$log"
}
finish "all backoff checks passed" show_logs
