#!/bin/sh
# What the package is called, declares and holds, read with dpkg-deb --info and
# --contents, then lintian's verdict: an error fails, warnings and notes are printed.
#
#   check_deb.sh PACKAGE.deb
set -u
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
deb=$1
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
field() { dpkg-deb --field "$deb" "$1"; }

dpkg-deb --info "$deb" >/dev/null || { echo "FAIL: dpkg-deb cannot read $deb"; exit 1; }
[ "$(basename "$deb")" = "tsc-swgagent_$(field Version)_$(dpkg --print-architecture).deb" ] ||
    fail "file name $(basename "$deb")"
# From the binaries (shlibdeps), and the two the maintainer scripts and the unit call.
for dep in libnftables1 libssl3 libcjson1 nftables init-system-helpers; do
    field Depends | grep -Eq "(^|, )$dep( |,|$)" || fail "Depends lacks $dep: $(field Depends)"
done
for script in postinst prerm postrm; do
    dpkg-deb --info "$deb" | grep -Eq "^ +[0-9]+ bytes, +[0-9]+ lines +\* +$script " ||
        fail "no executable $script"
done

contents=$(dpkg-deb --contents "$deb")
paths=$(echo "$contents" | awk '{ print $NF }')
need="./usr/sbin/tsc_swgagent ./usr/lib/systemd/system/tsc_swgagent.service
./usr/share/man/man8/tsc_swgagent.8.gz ./usr/share/doc/tsc-swgagent/examples/SWGConfig.json
./usr/share/doc/tsc-swgagent/copyright ./usr/share/doc/tsc-swgagent/changelog.gz"
for po in "$src"/l10n/*.po; do
    need="$need ./opt/trevo/trevoclient/l10n/$(basename "$po" .po)/LC_MESSAGES/Linkmantle.mo"
done
if [ -d "$src/tools/status" ]; then
    need="$need ./usr/sbin/swg-status ./usr/share/man/man8/swg-status.8.gz"
fi
for path in $need; do
    echo "$paths" | grep -qxF "$path" || fail "missing $path"
done
# No live configuration (that is the organisation's), no conffile, nothing of the tests.
echo "$paths" | grep -E '^\./etc/|/tarnwall/|private|test-gateway' | sed 's/^/FAIL: must not ship /'
echo "$paths" | grep -Eq '^\./etc/|/tarnwall/|private|test-gateway' && failures=$((failures + 1))
echo "$contents" | awk '$2 != "root/root"' | grep . && fail "files not owned by root"
# The agent refuses catalogues that group or others could write, and folders above them.
echo "$contents" | grep -E '^[^l].{4}w|^[^l].{7}w' && fail "files writable by group or others"
dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/lib/systemd/system/tsc_swgagent.service |
    grep -qx "ExecStart=/usr/sbin/tsc_swgagent -console" || fail "the unit does not start /usr/sbin/tsc_swgagent"

echo "---- lintian"
verdict=$(lintian --fail-on error --display-info --pedantic "$deb" 2>&1)
rc=$?
echo "$verdict" | grep -v "running with root privileges is not recommended"
[ $rc -eq 0 ] || fail "lintian reports errors"

if [ $failures -ne 0 ]; then echo "$failures check(s) failed"; exit 1; fi
echo "PASS"
