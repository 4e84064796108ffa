#!/bin/sh
# Builds the programs twice, in two folders with names of different length and with -g, and compares
# them byte by byte. Run before a release; takes two builds.
set -eu
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build() {
    mkdir -p "$1"
    git ls-files -z | xargs -0 cp --parents -t "$1"
    cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS=-g -DCMAKE_C_FLAGS=-g \
        -DVELM_TESTS=OFF >"$work/log"
    cmake --build "$2" --target velmd velmctl nvram >>"$work/log"
}
build "$work/a" "$work/a/build"
build "$work/another/folder" "$work/elsewhere"
for program in velmd velmctl nvram; do
    cmp "$work/a/build/bin/$program" "$work/elsewhere/bin/$program"
    echo "$program: the same bytes"
done
