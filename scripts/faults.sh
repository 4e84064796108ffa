#!/bin/sh
# Injects every fault of docs/faults.md into a release build: each allocation, each system call, 500
# kills, each byte of the store, each cut of the cloud's answers. Takes some ten minutes; wants root.
# Further arguments go to pytest, such as -k memory.
set -eu
cd "$(dirname "$0")/.."

./scripts/install-dependencies.sh
./scripts/build.sh release velmd nvram velmctl
exec /usr/bin/python3 -m pytest -q -p no:cacheprovider -n 4 --dist loadgroup --build=build/release \
    --every-fault tests/e2e/test_faults_*.py "$@"
