#!/bin/sh
# The agent refuses to start on a configuration it cannot use: no file, a file that is not
# JSON, a file without its required values, a file or folder that another user could have
# written. Each ends the start with the loader's line and the initialisation failure on the
# system log (seen on standard error through SWG_LOG_STDERR=1) and exit status 0. Needs no
# root: the agent stops before any network.
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
agent="$SWG_BINARY_DIR/src/tsc_swgagent"
umask 022
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# In a namespace where it can: an agent that wrongly starts then diverts nothing of the host's.
netns=""
[ "$(id -u)" -eq 0 ] && unshare -n true 2>/dev/null && netns="unshare -n"

confdir="$tmp/trevo/trevoclient/tarnwall/SWG"
mkdir -p "$confdir"

# run_case <name> <line the loader must write>
run_case() {
    SWG_LOG_STDERR=1 SWG_DATA_ROOT="$tmp" $netns timeout 20 "$agent" -console >"$tmp/out" 2>"$tmp/err"
    rc=$?
    [ $rc -eq 0 ] || fail "$1: exit status $rc, expected 0"
    grep -qF "$2" "$tmp/err" || fail "$1: missing '$2' in: $(cat "$tmp/err")"
    grep -qF "SWG: Failed in initialization. Error Code : 80004005" "$tmp/err" \
        || fail "$1: missing the initialisation failure in: $(cat "$tmp/err")"
    grep -q "Service started" "$tmp/err" && fail "$1: the service started"
}

# (a) no file
run_case "no file" "SWG: Failed to find config file: '$confdir/SWGConfig.json'"

# (b) not JSON
printf '{"identity": {"orgId": "org-1",\n' >"$confdir/SWGConfig.json"
run_case "malformed" "SWG : Failed to parse json file"

# (c) JSON without a gateway source and key id
cat >"$confdir/SWGConfig.json" <<'JSON'
{"identity": {"orgId": "org-1", "deviceId": "dev-1"},
 "commonConfig": {"rsaPubKey": "PEM"},
 "orgConfig": {"failOpen": "1"}}
JSON
run_case "invalid" "SWG: JSON file has few empty values."
# The keys before the refusal were still read and reported, the override's absence too.
grep -qF "SWG : Unable to open the custom config file" "$tmp/err" \
    || fail "invalid: override absence not reported"
grep -qF "SWG : Fail open policy has been set." "$tmp/err" || fail "invalid: failOpen not reported"

# (d) a valid file, then a folder above it, that any user could have changed
cp "$SWG_SOURCE_DIR/packaging/sample/SWGConfig.json" "$confdir/SWGConfig.json"
chmod 0666 "$confdir/SWGConfig.json"
run_case "world-writable" \
    "SWG: Refused to read '$confdir/SWGConfig.json': '$confdir/SWGConfig.json' is writable by others"
chmod 0644 "$confdir/SWGConfig.json"
chmod 0777 "$tmp/trevo"
run_case "folder writable" \
    "SWG: Refused to read '$confdir/SWGConfig.json': '$tmp/trevo' is writable by others"
finish "all configuration start checks passed"
