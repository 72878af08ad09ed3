#!/bin/sh
# Builds the Debian package tsc-swgagent_<version>_<arch>.deb and prints its path on the
# last line of standard output (everything else goes to standard error).
#
#   scripts/build-deb.sh [PRESET]
#
# PRESET is the configure preset whose tree is packaged. The default, "package", is the
# release build with Debian's hardening flags and without tests or benchmarks: the package
# to ship. The test command passes "debug" to package the tree it has already built.
#
#   SWG_PACKAGE_VERSION   version of the package (default: the project's version)
set -eu
cd "$(dirname "$0")/.."
preset=${1:-package}

./scripts/install-deps.sh >&2

set -- -DSWG_PACKAGE_VERSION="${SWG_PACKAGE_VERSION:-}"
if [ "$preset" = package ]; then
    # What debhelper would pass: -O2, stack protector, fortified libc calls, read-only
    # relocations bound at start. CMake does not read CPPFLAGS, so they join the others.
    export DEB_BUILD_MAINT_OPTIONS=hardening=+all
    cppflags=$(dpkg-buildflags --get CPPFLAGS)
    set -- "$@" -DCMAKE_C_FLAGS="$(dpkg-buildflags --get CFLAGS) $cppflags" \
        -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CXXFLAGS) $cppflags" \
        -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)"
fi
cmake --preset "$preset" "$@" >&2
cmake --build --preset "$preset" >&2

# Every preset builds in build/<preset>.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
(cd "build/$preset" && cpack -G DEB) >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
cat "$log" >&2
deb=$(sed -n 's/^CPack: - package: \(.*\.deb\) generated\.$/\1/p' "$log")
[ -f "$deb" ] || { echo "build-deb: cpack named no package" >&2; exit 1; }
echo "$deb"
