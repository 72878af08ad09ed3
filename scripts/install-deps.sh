#!/bin/sh
# Installs every Debian package that building, testing and demonstrating the
# agent needs. Idempotent: packages already present are left alone.
# With --bench also the peers and load tools of bench/peer/peer-bench.sh, which CI never runs.
set -eu

PACKAGES="
build-essential cmake pkg-config git
clang libclang-rt-dev llvm clang-format clang-tidy
libgtest-dev libgmock-dev googletest libbenchmark-dev
libboost-dev libboost-thread-dev libboost-date-time-dev libboost-system-dev
libboost-filesystem-dev libboost-regex-dev
libssl-dev openssl
libcjson-dev
libnftables-dev nftables
gettext
iproute2 iputils-ping procps curl socat psmisc util-linux kmod python3
dpkg-dev lintian
"
if [ "${1:-}" = --bench ]; then
    PACKAGES="$PACKAGES nginx-light wrk iperf3 redsocks linux-perf"
fi

missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $p"
    fi
done

if [ -z "$missing" ]; then
    echo "install-deps: all packages present"
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: missing packages:$missing" >&2
    echo "install-deps: run this script as root to install them" >&2
    exit 1
fi

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# shellcheck disable=SC2086
apt-get install -y -qq --no-install-recommends $missing
