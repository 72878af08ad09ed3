# The pieces every script test repeats. Source it after `set -u`; ctest sets SWG_SOURCE_DIR
# and SWG_BINARY_DIR. A script that cannot run here skips with exit status 77, which ctest
# reports as skipped.

skip() {
    echo "SKIP: $*"
    exit 77
}
need_root() { [ "$(id -u)" -eq 0 ] || skip "needs root for $1"; }
need_tools() {
    for tool; do
        command -v "$tool" >/dev/null 2>&1 || skip "needs $tool"
    done
}
need_built() {
    for program; do
        [ -x "$program" ] || skip "$program is not built"
    done
}

# fail counts a failed check and goes on, so that one run shows every failure;
# finish ends the script on them.
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
check() { # description, command...
    what=$1
    shift
    if "$@"; then echo "ok: $what"; else fail "$what"; fi
}
# finish MESSAGE [COMMAND...]: with failures, runs COMMAND (to show the logs) and exits 1;
# otherwise prints MESSAGE.
finish() {
    message=$1
    shift
    if [ "$failures" -ne 0 ]; then
        [ $# -eq 0 ] || "$@"
        echo "$failures check(s) failed"
        exit 1
    fi
    echo "$message"
}

# wait_for FILE PATTERN SECONDS: waits until FILE holds a line matching PATTERN.
. "$SWG_SOURCE_DIR/scripts/lib/world.sh"
wait_for() { world_wait_for "$@"; }

# agent_data DATA_ROOT: the agent's configuration folder below DATA_ROOT, made and named in
# $conf; the catalogues of the build beside it.
agent_data() {
    conf="$1/trevo/trevoclient/tarnwall/SWG"
    world_agent_data "$1" "$SWG_BINARY_DIR"
}

# world_test NAME [no-gateway]: the laptop and internet namespaces of scripts/lib/world.sh for
# a test run (names with this shell's pid), taken down when the script ends, with the origin
# servers and, unless told otherwise, the test gateway started. Skips without root or the
# tools and programs that needs.
world_test() {
    need_tools nft python3 curl openssl
    need_root "network namespaces"
    gateway="$SWG_BINARY_DIR/tools/test-gateway/swg-test-gateway"
    need_built "$gateway"
    WORLD=$1$$
    WORLD_WORK=$(mktemp -d)
    trap 'world_destroy; rm -rf "$WORLD_WORK"' EXIT
    world_create || exit 1
    world_start_origins "$SWG_SOURCE_DIR" || exit 1
    [ "${2:-}" = no-gateway ] && return 0
    world_start_gateway "$gateway" "$SWG_SOURCE_DIR/packaging/sample/licence-test-private.pem" || exit 1
}
