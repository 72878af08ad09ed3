#!/bin/sh
# Runs the agent with "-CONSOLE" in a network namespace of its own and stops it with
# SIGTERM: it must start with both listeners taking connections, stop in order, ignore a
# second signal while stopping, and exit 0. Needs root (unshare -n); exits 77 (skipped) otherwise.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
need_root "a network namespace"
agent="$SWG_BINARY_DIR/src/tsc_swgagent"
tmp=$(mktemp -d)
pid=""
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    rm -rf "$tmp"
}
trap cleanup EXIT

agent_data "$tmp"
cp "$SWG_SOURCE_DIR/packaging/sample/SWGConfig.json" "$conf/" \
    || { echo "FAIL: cannot copy the sample configuration"; exit 1; }
# Polls every 20 ms: the second signal below must land while the agent is still stopping.
logged() {  # pattern, limit in 20 ms steps
    i=0
    while [ $i -lt "$2" ]; do
        grep -q "$1" "$tmp/err" 2>/dev/null && return 0
        sleep 0.02
        i=$((i + 1))
    done
    echo "FAIL: timed out waiting for '$1'; log so far:"
    cat "$tmp/err"
    exit 1
}

SWG_LOG_STDERR=1 SWG_DATA_ROOT="$tmp" unshare -n sh -c 'ip link set lo up; exec "$0" -CONSOLE' "$agent" \
    >"$tmp/out" 2>"$tmp/err" &
pid=$!
# The signal lands while the start is still finishing (the configuration monitor's first
# reload logs on the main thread): the handler runs on its own thread and cannot block.
logged "Service started successfully" 750
# The sample configuration was read at start.
grep -qF "SWG : Fail open policy has been set." "$tmp/err" \
    || { echo "FAIL: the sample configuration was not read"; cat "$tmp/err"; exit 1; }

# Both listeners take connections on the loopback port 5002 of the agent's namespace. Each
# listener thread calls listen() itself, so the start may be logged a moment before.
i=0
while :; do
    listening=$(nsenter -t "$pid" -n ss -Hltn 2>/dev/null)
    missing=""
    for address in "127.0.0.1:5002" "[::1]:5002"; do
        echo "$listening" | grep -qF "$address" || missing="$address"
    done
    [ -z "$missing" ] && break
    i=$((i + 1))
    if [ $i -ge 250 ]; then
        echo "FAIL: nothing listens on $missing"; echo "$listening"; cat "$tmp/err"; exit 1
    fi
    sleep 0.02
done

kill -TERM "$pid"
# "Stopping components..." reaches the log a moment before the state says so (the line also
# goes to syslog after standard error); by the first listener's line the service is stopped.
logged "Stopping IPv4 Listener" 500
kill -INT "$pid" 2>/dev/null
wait "$pid"; rc=$?
pid=""
if [ $rc -ne 0 ]; then echo "FAIL: exit status $rc"; cat "$tmp/err"; exit 1; fi

# The stop sequence, in order.
expected="Starting IPv4 Listener...
Starting IPv6 Listener...
Service started successfully
TerminationHandler with signal 15, posting QUIT message to mobile connector
CSWGAgent::RunMessageLoop MSG_ID_QUIT
Stopping components...
Stopping IPv4 Listener...
IPv4 Listener stopped
Stopping IPv6 Listener...
IPv6 Listener stopped
Service stopped."
last=0
echo "$expected" | while IFS= read -r line; do
    n=$(grep -nF "$line" "$tmp/err" | head -1 | cut -d: -f1)
    if [ -z "$n" ] || [ "$n" -le "$last" ]; then
        echo "FAIL: '$line' missing or out of order"; cat "$tmp/err"; exit 1
    fi
    last=$n
done || exit 1
# The second signal arrived while stopping: it only logs.
grep -qF "TerminationHandler with signal 2 but service not running" "$tmp/err" \
    || { echo "FAIL: second signal not logged"; cat "$tmp/err"; exit 1; }
echo "lifecycle checks passed"
