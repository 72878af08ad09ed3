#!/bin/sh
# The package's life on a host: install, one diverted request, upgrade while a connection
# is open, remove, purge. The host is a throwaway copy of this machine: an overlay of its
# root filesystem on a tmpfs, in private mount, PID and network namespaces. dpkg and the
# maintainer scripts run there as on a real host, everything they write lands in the
# overlay's upper layer (which is how leftovers are found), and the real host is untouched.
# systemd is not running, so fake-systemctl serves the maintainer scripts' calls by running
# the installed unit's ExecStart and ExecStopPost lines. The laptop namespace holds the
# copy; the test gateway and the web hosts are in the internet namespace of
# scripts/lib/world.sh.
#
#   deb_lifecycle.sh OLD.deb NEW.deb BUILD_DIR     (NEW of a higher version than OLD;
#                                                  BUILD_DIR holds the test gateway)
# Needs root, nft, curl, openssl and python3; exits 77 (skipped) otherwise.
set -u
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
export SWG_SOURCE_DIR="$src"
. "$src/tests/scripts/lib/checks.sh"

if [ "${1:-}" != --inside ]; then
    [ $# -eq 3 ] || { echo "usage: $0 OLD.deb NEW.deb BUILD_DIR" >&2; exit 2; }
    need_tools unshare
    need_root "namespaces and mounts"
    grep -qw overlay /proc/filesystems || modprobe overlay 2>/dev/null || skip "needs overlayfs"
    SWG_BINARY_DIR=$3
    world_test swgpkg
    # PID 1 of the new PID namespace is the inner run: when it ends, every process the
    # package started ends with it.
    ip netns exec "$(world_client)" unshare --mount --pid --fork --mount-proc \
        sh "$0" --inside "$(realpath "$1")" "$(realpath "$2")" "$WORLD_WORK"
    exit $?
fi

old=$2
new=$3
work=$4
root=$work/root
in_root() {
    chroot "$root" env PATH=/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"
}
fetch() { curl -sS --max-time 20 -o /dev/null "$@"; }
gateway_saw() { grep -q "$1" "$work/gateway.log"; }
log=$root/run/fake-systemd/tsc_swgagent.service.log
agent_pid() { cat "$root/run/fake-systemd/tsc_swgagent.service.pid"; }
gone() { [ ! -r "/proc/$1/stat" ] || grep -q '^[0-9]* ([^)]*) Z' "/proc/$1/stat"; }
logged_after() { tail -n "+$(($1 + 1))" "$log" 2>/dev/null | grep -q "$2"; }
wait_logged() {  # line, pattern: waits up to 30 s for the agent to log pattern after line
    i=0
    while ! logged_after "$1" "$2" && [ $i -lt 600 ]; do sleep 0.05; i=$((i + 1)); done
    logged_after "$1" "$2"
}
no_table() { ! nft list table inet tsc_swg >/dev/null 2>&1; }
old_stopped_in_order() { gone "$old_pid" && [ "$(grep -c 'Service stopped' "$log")" -eq 1 ]; }
exe_of() { in_root readlink "/proc/$1/exe"; }
upper_files() {  # files, links and whiteouts the copy holds beyond the host
    (cd "$work/rw/upper" && find . ! -type d | sort)
}
report() {
    echo "---- fake systemctl calls"; cat "$root/run/fake-systemd/calls"
    echo "---- agent log (tail)"; tail -n 40 "$log"
    echo "---- dpkg"; cat "$work/dpkg.log"
}

# The copy of the host, and what the test puts in it first: this machine's "start nothing"
# policy removed (a real host has none), systemd's marker and the stand-in, no manual page
# index update (slow, and not the package's), the organisation's configuration in the data
# path, and name resolution of the laptop.
mkdir -p "$root" "$work/rw"
mount -t tmpfs swgpkg "$work/rw"
mkdir "$work/rw/upper" "$work/rw/work"
mount -t overlay swgpkg -o "lowerdir=/,upperdir=$work/rw/upper,workdir=$work/rw/work" "$root"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
for dir in dev/shm run tmp; do mount -t tmpfs swgpkg "$root/$dir"; done
mount --bind /etc/hosts "$root/etc/hosts"
mount --bind /etc/resolv.conf "$root/etc/resolv.conf"
rm -f "$root/usr/sbin/policy-rc.d" "$root/var/lib/man-db/auto-update"
cp "$here/fake-systemctl" "$root/usr/local/sbin/systemctl"
mkdir -p "$root/run/systemd/system"
rm -rf "$root/opt/trevo"
conf=$root/opt/trevo/trevoclient/tarnwall/SWG
mkdir -p "$conf"
cp "$src/packaging/sample/SWGConfig.json" "$conf/"
cp "$old" "$root/tmp/old.deb"
cp "$new" "$root/tmp/new.deb"
baseline=$(upper_files)

# Install: enabled, started, one request carried through the gateway.
in_root dpkg -i /tmp/old.deb >"$work/dpkg.log" 2>&1
check "dpkg installs the package" [ $? -eq 0 ]
check "the unit is enabled" test -L "$root/etc/systemd/system/multi-user.target.wants/tsc_swgagent.service"
check "the agent is started and diverts" wait_logged 0 "Redirector: table inet tsc_swg in force"
old_pid=$(agent_pid)
fetch http://www.demo.test/pkg-installed
check "a diverted request goes through the gateway" gateway_saw "HTTP GET www.demo.test/pkg-installed"

# Upgrade while a TLS connection is open through the agent, with a client connecting
# again and again: none of its connections may be refused (diverted to no listener).
mkfifo "$work/held.in"
openssl s_client -brief -connect secure.demo.test:443 <"$work/held.in" >"$work/held.out" 2>&1 &
held=$!
exec 3>"$work/held.in"
check "a TLS connection is open through the agent" wait_for "$work/held.out" "CONNECTION ESTABLISHED" 10
(
    i=0
    while [ ! -e "$work/probe.stop" ] && [ $i -lt 1000 ]; do
        curl -s -o /dev/null --max-time 5 http://www.demo.test/probe
        echo $? >>"$work/probe.rc"
        i=$((i + 1))
    done
) &
prober=$!
wait_for "$work/probe.rc" . 10 >/dev/null
mark=$(wc -l <"$log")
started=$(date +%s)
in_root dpkg -i /tmp/new.deb >>"$work/dpkg.log" 2>&1
check "dpkg upgrades the package" [ $? -eq 0 ]
check "the upgrade took less than the unit's stop timeout" [ $(($(date +%s) - started)) -lt 20 ]
check "the new agent starts" wait_logged "$mark" "Service started successfully"
check "the new agent diverts" wait_logged "$mark" "Redirector: table inet tsc_swg in force"
touch "$work/probe.stop"
wait $prober
check "the old agent stopped in order" old_stopped_in_order
check "the old agent needed no SIGKILL" test -z "$(grep 'timed out' "$root/run/fake-systemd/calls")"
check "the new agent runs the new binary" [ "$(exe_of "$(agent_pid)")" = /usr/sbin/tsc_swgagent ]
# Not a check: the old agent removes its table before it closes its connections, and once
# the table is gone the kernel no longer translates that connection's closing packets back,
# so the client is not told (docs/installation.md, "Upgrades").
if gone $held; then state="was closed"; else state="is still waiting"; fi
echo "info: the connection open across the upgrade $state"
check "no connection was refused during the upgrade" test -z "$(grep -x 7 "$work/probe.rc")"
echo "info: $(wc -l <"$work/probe.rc") connections during the upgrade, exit codes:" \
    "$(sort "$work/probe.rc" | uniq -c | tr -s ' \n' ' ')"
check "the new version is installed" [ "$(in_root dpkg-query -W -f '${Version}' tsc-swgagent)" = \
    "$(dpkg-deb -f "$new" Version)" ]
fetch http://www.demo.test/pkg-upgraded
check "the new agent carries a diverted request" gateway_saw "HTTP GET www.demo.test/pkg-upgraded"
exec 3>&-

# Remove: the agent stops, its table and unit go. Purge: nothing of the package is left
# but dpkg's own records; the organisation's configuration stays.
new_pid=$(agent_pid)
in_root dpkg -r tsc-swgagent >>"$work/dpkg.log" 2>&1
check "dpkg removes the package" [ $? -eq 0 ]
check "the agent is stopped" gone "$new_pid"
check "no diversion table is left" no_table
check "the unit is gone" test ! -e "$root/usr/lib/systemd/system/tsc_swgagent.service"
in_root dpkg -P tsc-swgagent >>"$work/dpkg.log" 2>&1
check "dpkg purges the package" [ $? -eq 0 ]
echo "$baseline" >"$work/baseline"
upper_files | grep -vxF -f "$work/baseline" |
    grep -Ev '^\./var/lib/dpkg/|^\./var/log/dpkg\.log$' >"$work/leftovers"
check "purge leaves nothing of the package" test ! -s "$work/leftovers"
sed 's/^/  left: /' "$work/leftovers"
check "the configuration stays" test -f "$conf/SWGConfig.json"

finish "PASS" report
