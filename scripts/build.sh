#!/bin/sh
# Builds targets of a preset and says so in one line; a build that fails shows the end of its log.
# Installs clang where the preset wants it and it is missing.
#
# usage: scripts/build.sh PRESET [TARGET ...]      all targets when none is named
set -eu
cd "$(dirname "$0")/.."

preset=$1
shift
log=$(mktemp)
trap 'rm -f "$log"' EXIT
case $preset in
    asan | clang | fuzz) ./scripts/install-dependencies.sh clang-14 libclang-rt-14-dev llvm-14 ;;
esac
echo "Building the $preset preset ..."
if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1
then
    # gold says so of a hundred names of the sanitizer, in every program.
    grep -v 'warning: Cannot export local symbol' "$log" | tail -n 100 >&2
    exit 1
fi
