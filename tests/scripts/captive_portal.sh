#!/bin/sh
# Captive portal, with the real agent and real diversion (scripts/lib/world.sh), under fail
# close while the gateway cannot be reached. A portal host answers the echo service: a 302, a
# 200 page, "Success" with a newline and a 503 each turn the agent to portal mode, and the
# user's request goes straight to its origin while the probe went out directly. With
# "Success" the mode ends: the gateway still down gives the refusal page; a silent echo
# service leaves it to the fallback name, which the laptop's hosts file points at the portal
# host; and with the gateway back, new connections go through it again.
# Needs root, nft, python3 and curl; exits 77 (skipped) otherwise.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
world_test swgcp no-gateway
log_count() { grep -c "$2" "$WORLD_WORK/$1.log"; }

data="$WORLD_WORK/data"
agent_data "$data"
python3 - "$SWG_SOURCE_DIR/packaging/sample/SWGConfig.json" "$conf/SWGConfig.json" <<'PY'
import json, sys
config = json.load(open(sys.argv[1]))
config["orgConfig"]["failOpen"] = "0"
config["orgConfig"]["swgEchoService"] = "http://portal.demo.test/echo"
json.dump(config, open(sys.argv[2], "w"), indent=2)
PY

inet=$(world_inet)
ip -n "$inet" addr add 198.18.0.40/32 dev lo
# The laptop's only way out is the test internet, which routes nowhere further; the gateway
# cannot be reached until the route to it is given back.
ip -n "$(world_client)" route add default via 198.18.1.1
ip -n "$(world_client)" route add unreachable 198.18.0.10/32
echo "198.18.0.40 portal.demo.test www.msftconnecttest.com" >>"/etc/netns/$(world_client)/hosts"
# The portal answers as the file "answer" says at the time of each request.
world_spawn "$inet" "$WORLD_WORK/portal.log" python3 -c '
import http.server, sys, time
answers = {"302": (302, b""), "html": (200, b"<html>sign in</html>"), "newline": (200, b"Success\n"),
           "503": (503, b""), "success": (200, b"Success"), "fallback": (200, b"Microsoft Connect Test")}
class Portal(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        print(f"portal: from {self.client_address[0]}: {self.requestline}", flush=True)
        answer = "fallback" if self.path == "/connecttest.txt" else open(sys.argv[1]).read().strip()
        if answer == "silent": return time.sleep(20)  # past every probe timeout
        self.send_response(answers[answer][0])
        if answer == "302": self.send_header("Location", "http://Portal.Demo.Test:8080/login?next=x")
        self.end_headers()
        self.wfile.write(answers[answer][1])
print("ready", flush=True)
http.server.ThreadingHTTPServer(("198.18.0.40", 80), Portal).serve_forever()' "$WORLD_WORK/answer"
world_wait_for "$WORLD_WORK/portal.log" ready 10 || exit 1
world_start_agent "$SWG_BINARY_DIR/src/tsc_swgagent" "$data" || { cat "$WORLD_WORK/agent.log"; exit 1; }

refused() { world_curl -i "http://www.demo.test/$1" | grep -q "499 Fail close"; }
# The page arrived, and the origin saw the laptop's address, not the gateway's.
direct() { world_curl "http://www.demo.test/$1" | grep -q "$1" && grep "$1" "$WORLD_WORK/origin-www.log" | grep -q "from 198.18.1.2"; }
for answer in 302 html newline 503; do
    echo "$answer" >"$WORLD_WORK/answer"
    probes=$(log_count portal "from 198.18.1.2: GET /echo HTTP/1.1")
    check "$answer: the request goes straight to the origin" direct "cp-$answer"
    check "$answer: a probe went to the portal" [ "$(log_count portal "from 198.18.1.2: GET /echo HTTP/1.1")" -gt "$probes" ]
    echo success >"$WORLD_WORK/answer"
    [ "$answer" = 503 ] || check "$answer: portal gone, gateway down: refusal page" refused "gone-$answer"
done
check "the redirect's domain was logged" grep -q "Captive Portal Detected via portal.demo.test with redirect code 302" "$WORLD_WORK/agent.log"
check "the probes were never diverted to the agent, the user's requests were" sh -c \
    "grep -q 'dst_addr=198.18.0.20' '$WORLD_WORK/agent.log' && ! grep -q 'dst_addr=198.18.0.40' '$WORLD_WORK/agent.log'"

echo silent >"$WORLD_WORK/answer"
check "silent echo service, fallback answers: refusal page" refused silent
check "the fallback went to the portal host by its name" grep -q "GET /connecttest.txt HTTP/1.1" "$WORLD_WORK/portal.log"

echo 302 >"$WORLD_WORK/answer"
world_curl http://www.demo.test/cp-again >/dev/null
check "in portal mode the next connection goes straight to the origin" direct cp-still
check "... without a gateway attempt" grep -q "CP detected already. Bypassing connection" "$WORLD_WORK/agent.log"
echo success >"$WORLD_WORK/answer"
ip -n "$(world_client)" route del unreachable 198.18.0.10/32
world_start_gateway "$gateway" "$SWG_SOURCE_DIR/packaging/sample/licence-test-private.pem" || exit 1
world_curl http://www.demo.test/cp-back >/dev/null
check "portal gone, gateway back: through the gateway" grep -q "HTTP GET www.demo.test/cp-back" "$WORLD_WORK/gateway.log"

show_logs() {
    echo "---- agent log (tail)"; tail -n 60 "$WORLD_WORK/agent.log"
    echo "---- portal log"; cat "$WORLD_WORK/portal.log"
}
finish "all captive portal checks passed" show_logs
