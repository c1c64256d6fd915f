#!/bin/sh
# Installs the Debian packages the build needs; does nothing when all are present.
#   scripts/install-deps.sh        what building and testing need
#   scripts/install-deps.sh fuzz   that, and clang with libFuzzer and its sanitizers
set -eu
PACKAGES="build-essential cmake pkg-config zlib1g-dev libssl-dev libsnappy-dev \
libboost-filesystem-dev libboost-date-time-dev libjansson-dev libisal-dev isal \
libgtest-dev libgmock-dev libbenchmark-dev libcurl4-openssl-dev influxdb curl"
if [ "${1:-}" = fuzz ]; then
    PACKAGES="$PACKAGES clang libclang-rt-dev"
fi

missing=""
for p in $PACKAGES; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

cmd="apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends$missing"
if [ "$(id -u)" -eq 0 ]; then
    echo "Installing:$missing"
    sh -c "$cmd"
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
    echo "Installing with sudo:$missing"
    sudo sh -c "$cmd"
else
    echo "Missing packages:$missing" >&2
    echo "Run as root: $cmd" >&2
    exit 1
fi
