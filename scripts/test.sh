#!/bin/sh
# Builds the agent and runs every test suite: the debug build with all tests
# (network-namespace scenarios included when run as root), the Debian package of
# that build checked and taken through install, upgrade and removal, the ASan+UBSan
# build with the unit tests, the TSan build with every test of the debug stage (the
# agent and its threads in the scripts too), and a bounded fuzzing run of each
# parser.
#
#   SWG_TEST_STAGES   which stages to run (default: "debug package asan tsan fuzz")
#   SWG_FUZZ_SECONDS  time per fuzz target (default 20)
set -eu
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

stages=${SWG_TEST_STAGES:-"debug package asan tsan fuzz"}

run_stage() {  # preset [targets...]
    preset=$1
    shift
    echo "==== $preset: configure and build"
    cmake --preset "$preset" >/dev/null
    if [ $# -gt 0 ]; then
        cmake --build --preset "$preset" --target "$@"
    else
        cmake --build --preset "$preset"
    fi
    echo "==== $preset: test"
    ctest --preset "$preset"
}

# The package of the debug tree, not of a release build: the same install rules and
# maintainer scripts without compiling the agent a second time. Two versions of it, for
# the upgrade; the tree is left configured for the project's own version.
package_stage() {
    echo "==== package: build from the debug tree"
    deb=$(./scripts/build-deb.sh debug)
    version=$(dpkg-deb --field "$deb" Version)
    upgrade=$(SWG_PACKAGE_VERSION="$version+upgrade1" ./scripts/build-deb.sh debug)
    cmake --preset debug -DSWG_PACKAGE_VERSION= >/dev/null
    echo "==== package: check"
    ./tests/package/check_deb.sh "$deb"
    echo "==== package: install, upgrade, remove"
    ./tests/package/deb_lifecycle.sh "$deb" "$upgrade" build/debug || [ $? -eq 77 ]
}

for stage in $stages; do
    case $stage in
        debug) run_stage debug ;;
        package) package_stage ;;
        asan)  run_stage asan-ubsan ;;
        tsan)  run_stage tsan ;;
        fuzz)  run_stage fuzz swg_fuzzers ;;
        *) echo "unknown stage: $stage" >&2; exit 2 ;;
    esac
done
echo "==== all stages passed: $stages"
