#!/usr/bin/env bash
# Makes N round trips with one process of the release build, and compares its memory, descriptors and
# the events of its loop with those after the first hundred.
#
# usage: scripts/soak.sh [N] [--seconds MOST]      100000 round trips unless told otherwise; needs root
#
# Installs what is missing and builds first.
set -eu
cd "$(dirname "$0")/.."

if ! [[ ${1:-100000} =~ ^[1-9][0-9]*$ ]]; then
    sed -n '5s/^# *//p' "$0" >&2
    exit 2
fi
./scripts/install-dependencies.sh
./scripts/build.sh release velmd nvram velmctl

PYTHONPATH=sim:tests/harness exec /usr/bin/python3 -B -m velm_harness.soak "$@"
