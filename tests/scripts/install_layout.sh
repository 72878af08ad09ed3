#!/bin/sh
# `cmake --install` below a scratch DESTDIR: the agent and swg-status in sbin, the unit under
# lib/systemd/system naming that binary and removing the table after a stop, the sample
# files and the installation text under share/doc, and no private key. DESTDIR, not
# --prefix: the catalogues' destination is absolute and would otherwise land in the
# host's /opt.
set -u
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix="$tmp/usr"
if ! DESTDIR="$tmp" cmake --install "$SWG_BINARY_DIR" --prefix /usr >"$tmp/log" 2>&1; then
    echo "FAIL: cmake --install"; cat "$tmp/log"; exit 1
fi
fail() { echo "FAIL: $*"; exit 1; }
unit="$prefix/lib/systemd/system/tsc_swgagent.service"
doc="$prefix/share/doc/tsc-swgagent"
[ -x "$prefix/sbin/tsc_swgagent" ] || fail "no sbin/tsc_swgagent"
[ -x "$prefix/sbin/swg-status" ] || fail "no sbin/swg-status beside the agent"
[ -f "$unit" ] || fail "no unit under lib/systemd/system"
grep -qx "ExecStart=/usr/sbin/tsc_swgagent -console" "$unit" || fail "ExecStart: $(grep ExecStart "$unit")"
grep -Eqx 'ExecStopPost=-/([a-z/]+/)?nft delete table inet tsc_swg' "$unit" || fail "ExecStopPost: $(grep ExecStopPost "$unit")"
grep -qx "WantedBy=multi-user.target" "$unit" || fail "no WantedBy"
[ -f "$doc/installation.md" ] || fail "no installation.md"
[ -f "$doc/examples/SWGConfig.json" ] || fail "no sample configuration"
if find "$prefix" -name '*private*' | grep -q .; then fail "a private key was installed"; fi
if command -v systemd-analyze >/dev/null 2>&1; then
    # Checks the syntax of a copy that names the binary below DESTDIR; the manual page
    # named in Documentation= is not installed on this host.
    sed "s|=/usr/sbin/|=$prefix/sbin/|" "$unit" >"$tmp/tsc_swgagent.service"
    systemd-analyze verify --man=no "$tmp/tsc_swgagent.service" >"$tmp/verify" 2>&1 ||
        { cat "$tmp/verify"; fail "systemd-analyze verify"; }
fi
echo "PASS"
