#!/usr/bin/env bash
# Everything that can happen to the daemon, in an order drawn from SEED, for SECONDS; after each step
# a model says what must be true. The same seed replays the same schedule.
#
# usage: scripts/storm.sh SEED SECONDS [--build DIRECTORY]      needs root: it makes network namespaces
#        scripts/storm.sh SEED 0 --dry-run [--steps N]          prints the schedule only
#        scripts/storm.sh SEED SECONDS --first STEP             leaves out the steps before that one
#
# Installs what is missing and builds the preset "asan" first.
set -eu
cd "$(dirname "$0")/.."

if ! [[ $# -ge 2 && $1 =~ ^[0-9]+$ && $2 =~ ^[0-9]+$ ]]; then
    sed -n '5,7s/^# *//p' "$0" >&2
    exit 2
fi
./scripts/install-dependencies.sh

case " $* " in
*" --dry-run "* | *" --build "*) ;;
*) ./scripts/build.sh asan velmd nvram velmctl ;;
esac
PYTHONPATH=sim:tests/harness exec /usr/bin/python3 -B -m velm_harness.storm "$@"
