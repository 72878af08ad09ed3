#!/bin/sh
# Argument handling of the built tsc_swgagent: exit codes, standard error and the
# syslog copy (seen on standard error through SWG_LOG_STDERR=1).
set -u
. "$SWG_SOURCE_DIR/tests/scripts/lib/checks.sh"
agent="$SWG_BINARY_DIR/src/tsc_swgagent"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

expect_exit0() {
    if [ "$1" -ne 0 ]; then fail "$2: exit status $1, expected 0"; fi
}

# No argument: exit 0 with nothing but the leading line feed.
"$agent" >"$tmp/out" 2>"$tmp/err"; rc=$?
expect_exit0 $rc "no argument"
[ "$(od -An -c "$tmp/err" | tr -d ' ')" = '\n' ] || fail "no argument: stderr was '$(cat "$tmp/err")'"
[ -s "$tmp/out" ] && fail "no argument: wrote to stdout"

# A word without a dash: both texts on stderr, the hint only there.
"$agent" console >"$tmp/out" 2>"$tmp/err"; rc=$?
expect_exit0 $rc "console"
grep -qxF "Did not recognise command line parameter: 'console'. Parameters have to be preceded by a dash ('-')." "$tmp/err" \
    || fail "console: stderr lacks the text with its hint: $(cat "$tmp/err")"

# An unknown dashed option: the text without the hint.
"$agent" -foo >"$tmp/out" 2>"$tmp/err"; rc=$?
expect_exit0 $rc "-foo"
grep -qxF "Did not recognise command line parameter: '-foo'" "$tmp/err" || fail "-foo: $(cat "$tmp/err")"
grep -q "preceded by a dash" "$tmp/err" && fail "-foo: hint given for a dashed argument"

# The syslog copy never carries the hint.
SWG_LOG_STDERR=1 "$agent" console >"$tmp/out" 2>"$tmp/err"; rc=$?
expect_exit0 $rc "console with syslog copy"
grep "tsc_swgagent" "$tmp/err" | grep -qF "Did not recognise command line parameter: 'console'" \
    || fail "syslog copy missing: $(cat "$tmp/err")"
grep "tsc_swgagent" "$tmp/err" | grep -q "preceded by a dash" && fail "syslog copy carries the hint"

# The trailing blank line after the text.
"$agent" -bar >"$tmp/out" 2>"$tmp/err"
[ "$(tail -c 2 "$tmp/err" | od -An -c | tr -d ' ')" = '\n\n' ] || fail "-bar: text not followed by two line feeds"
finish "all argument checks passed"
