#!/bin/sh
# Shows the main job: an iPhone and an Android phone find the access point and pair, a local client
# asks for the location, both are pushed to, and every local client gets a report from each.
# Installs what is missing and builds first. Options:
#   --stay   leave everything running and print commands to try by hand
set -eu
cd "$(dirname "$0")/.."

for option in "$@"; do
    if [ "$option" != --stay ]; then
        echo "usage: scripts/demo.sh [--stay]" >&2
        exit 2
    fi
done
if [ "$(id -u)" -ne 0 ]; then
    echo "The demo makes network namespaces: run it as root." >&2
    exit 1
fi

./scripts/install-dependencies.sh
./scripts/build.sh release velmd nvram velmctl

PYTHONPATH=sim exec /usr/bin/python3 -m velm_sim.demo --build build/release "$@"
