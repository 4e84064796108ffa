#!/usr/bin/env bash
# Measures the release build beside nginx, lighttpd, mosquitto, `openssl speed` and bare loops: prints
# one table and writes it into build/bench as text, JSON and SVG. bench/README.md says how each figure
# comes about.
#
# usage: scripts/bench.sh [--quick]      needs root: it makes network namespaces
set -eu
cd "$(dirname "$0")/.."

# What only the benchmarks want: the peers, and what counts system calls and instructions. Debian starts
# what it installs; the peers measured here are processes of our own, so that none stays behind.
peers="nginx-light lighttpd lighttpd-mod-openssl mosquitto strace valgrind"
install_peers() (
    policy=/usr/sbin/policy-rc.d
    if [ ! -e "$policy" ] && [ "$(id -u)" -eq 0 ]; then
        trap 'rm -f "$policy"' EXIT
        printf '#!/bin/sh\nexit 101\n' >"$policy"
        chmod 755 "$policy"
    fi
    # shellcheck disable=SC2086  # one word a package
    ./scripts/install-dependencies.sh $peers
)
install_peers

./scripts/build.sh release velmd velmctl nvram velm-https-load velm-micro velm-bench velm-load \
    velm-round-floor velm-round-clock velm-round-hash velm-round-heap

PYTHONPATH=sim:bench exec /usr/bin/python3 -B -m velm_bench --output build/bench "$@"
