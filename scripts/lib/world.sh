# Two network namespaces that stand in for a laptop and the internet, for the
# demonstration and the end-to-end checks. Source this file, set WORLD (a short name
# prefix) and WORLD_WORK (a scratch folder), then call the functions below. Needs root.
#
#   $WORLD-client  198.18.1.2/24  the laptop: the agent and the user's clients
#   $WORLD-inet    198.18.1.1/24  the internet, with these hosts on its loopback:
#                  198.18.0.10    gateway.swg.test   the test gateway (80, 443)
#                  198.18.0.20    www.demo.test      plain HTTP origin (80, 8080)
#                  198.18.0.21    secure.demo.test   HTTPS origin (443)
#                  198.18.0.30    exempt.demo.test   HTTP origin named in the exception list
#                  10.99.0.20     private.demo.test  HTTP origin in a private range
#
# Every address is a test address (198.18.0.0/15) or private; nothing leaves the host.

world_client() { echo "$WORLD-client"; }
world_inet() { echo "$WORLD-inet"; }
WORLD_PIDS=""

world_create() {
    client=$(world_client)
    inet=$(world_inet)
    world_destroy_namespaces
    ip netns add "$client"
    ip netns add "$inet"
    ip link add swgc0 netns "$client" type veth peer name swgi0 netns "$inet"
    ip -n "$client" link set lo up
    ip -n "$client" addr add 198.18.1.2/24 dev swgc0
    ip -n "$client" link set swgc0 up
    ip -n "$client" route add 198.18.0.0/24 via 198.18.1.1
    ip -n "$client" route add 10.99.0.0/24 via 198.18.1.1
    ip -n "$inet" link set lo up
    ip -n "$inet" addr add 198.18.1.1/24 dev swgi0
    ip -n "$inet" link set swgi0 up
    # The hosts live on the internet's loopback: local addresses answer on any interface.
    for a in 198.18.0.10 198.18.0.20 198.18.0.21 198.18.0.30 10.99.0.20; do
        ip -n "$inet" addr add "$a/32" dev lo
    done
    # ip netns exec mounts these over /etc/hosts and /etc/resolv.conf: the laptop and the
    # gateway both find the test hosts by name, and no query leaves the host.
    for ns in "$client" "$inet"; do
        mkdir -p "/etc/netns/$ns"
        cat >"/etc/netns/$ns/hosts" <<HOSTS
127.0.0.1 localhost
198.18.0.10 gateway.swg.test
198.18.0.20 www.demo.test
198.18.0.21 secure.demo.test
198.18.0.30 exempt.demo.test
10.99.0.20 private.demo.test
HOSTS
        echo "nameserver 127.0.0.1" >"/etc/netns/$ns/resolv.conf"
    done
}

world_destroy_namespaces() {
    ip netns del "$(world_client)" 2>/dev/null || true
    ip netns del "$(world_inet)" 2>/dev/null || true
    rm -rf "/etc/netns/$(world_client)" "/etc/netns/$(world_inet)"
}

# Stops everything started through world_spawn, then removes the namespaces.
world_destroy() {
    world_stop_spawned
    world_destroy_namespaces
}

world_stop_spawned() {
    for p in $WORLD_PIDS; do kill -TERM "$p" 2>/dev/null; done
    sleep "${1:-0.3}"
    for p in $WORLD_PIDS; do kill -KILL "$p" 2>/dev/null; done
    WORLD_PIDS=""
}

# world_spawn NAMESPACE LOGFILE COMMAND...: runs COMMAND in the background in NAMESPACE.
world_spawn() {
    ns=$1
    log=$2
    shift 2
    ip netns exec "$ns" "$@" >"$log" 2>&1 &
    WORLD_LAST_PID=$!
    WORLD_PIDS="$WORLD_PIDS $WORLD_LAST_PID"
}

# world_wait_for FILE PATTERN SECONDS: waits until FILE holds a line matching PATTERN.
world_wait_for() {
    i=0
    while [ $i -lt $(($3 * 20)) ]; do
        grep -q "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
        i=$((i + 1))
    done
    echo "timed out after $3 s waiting for '$2' in $1" >&2
    tail -n 30 "$1" >&2 2>/dev/null || true
    return 1
}

# world_start_origins SOURCE_DIR: the origin web servers of the internet namespace.
world_start_origins() {
    src=$1
    inet=$(world_inet)
    openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/CN=secure.demo.test" \
        -keyout "$WORLD_WORK/origin.key" -out "$WORLD_WORK/origin.crt" 2>/dev/null
    server="$src/scripts/demo/origin_server.py"
    world_spawn "$inet" "$WORLD_WORK/origin-www.log" python3 "$server" --bind 198.18.0.20 --port 80 --title www.demo.test
    world_spawn "$inet" "$WORLD_WORK/origin-www8080.log" python3 "$server" --bind 198.18.0.20 --port 8080 --title www.demo.test:8080
    world_spawn "$inet" "$WORLD_WORK/origin-secure.log" python3 "$server" --bind 198.18.0.21 --port 443 --title secure.demo.test \
        --cert "$WORLD_WORK/origin.crt" --key "$WORLD_WORK/origin.key"
    world_spawn "$inet" "$WORLD_WORK/origin-exempt.log" python3 "$server" --bind 198.18.0.30 --port 80 --title exempt.demo.test
    world_spawn "$inet" "$WORLD_WORK/origin-private.log" python3 "$server" --bind 10.99.0.20 --port 80 --title private.demo.test
    for f in www www8080 secure exempt private; do
        world_wait_for "$WORLD_WORK/origin-$f.log" "ready" 10 || return 1
    done
}

# world_start_gateway GATEWAY_BINARY KEY_PEM [extra flags...]
world_start_gateway() {
    gw=$1
    key=$2
    shift 2
    world_spawn "$(world_inet)" "$WORLD_WORK/gateway.out" "$gw" --listen 198.18.0.10:443 \
        --listen 198.18.0.10:80 --key "$key" --log "$WORLD_WORK/gateway.log" "$@"
    WORLD_GATEWAY_PID=$WORLD_LAST_PID
    world_wait_for "$WORLD_WORK/gateway.out" "ready" 10
}

# world_agent_data DATA_ROOT BUILD_DIR: the agent's configuration folder below DATA_ROOT, with
# the build's message catalogues beside it; the configuration file itself is the caller's.
world_agent_data() {
    mkdir -p "$1/trevo/trevoclient/tarnwall/SWG"
    if [ -d "$2/data/trevo/trevoclient" ]; then
        cp -r "$2/data/trevo/trevoclient/." "$1/trevo/trevoclient/"
    fi
}

# world_start_agent AGENT_BINARY DATA_ROOT: the agent in the laptop, logging to agent.log.
world_start_agent() {
    world_spawn "$(world_client)" "$WORLD_WORK/agent.log" env SWG_DATA_ROOT="$2" SWG_LOG_STDERR=1 "$1" -console
    WORLD_AGENT_PID=$WORLD_LAST_PID
    world_wait_for "$WORLD_WORK/agent.log" "Service started successfully" 30 || return 1
    world_wait_for "$WORLD_WORK/agent.log" "Redirector: table inet tsc_swg in force" 30 || return 1
    world_wait_ipv4_diverted
}

# The table is in force once one family diverts; the IPv4 rules follow when the IPv4 listener
# listens, which may be a moment later. Waits up to 10 s for them.
world_wait_ipv4_diverted() {
    i=0
    until ip netns exec "$(world_client)" nft list chain inet tsc_swg divert 2>/dev/null |
        grep -q "ip daddr"; do
        i=$((i + 1))
        [ $i -ge 200 ] && { echo "no IPv4 diversion after 10 s" >&2; return 1; }
        sleep 0.05
    done
}

# world_curl ARGS...: curl from the laptop with a bounded time.
world_curl() {
    ip netns exec "$(world_client)" curl -sS --max-time 20 "$@"
}

world_table_present() {
    ip netns exec "$(world_client)" nft list table inet tsc_swg >/dev/null 2>&1
}
