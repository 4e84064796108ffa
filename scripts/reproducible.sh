#!/bin/sh
# Builds the programs twice, in two folders with names of different length and with -g, and compares
# them byte by byte. Run before a release; takes two builds.
# The last line says "N passed, N failed"; the exit status is 0 only when nothing failed.
set -eu
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
programs="velmd velmctl nvram velm-platform-check"
export CCACHE_DISABLE=1 # it would give the second build the objects of the first

build() { # SOURCES BUILD
    echo "Building in $2 ..."
    mkdir -p "$1"
    git ls-files -z | xargs -0 cp --parents -t "$1"
    # shellcheck disable=SC2086  # one word a program
    if ! {
        cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS=-g -DCMAKE_C_FLAGS=-g \
            -DVELM_TESTS=OFF && cmake --build "$2" --target $programs
    } >"$work/log" 2>&1; then
        tail -n 60 "$work/log"
        return 1
    fi
}

build "$work/a" "$work/a/build"
build "$work/another/folder" "$work/elsewhere"
passed=0 failed=0
for program in $programs; do
    if cmp "$work/a/build/bin/$program" "$work/elsewhere/bin/$program"; then
        echo "$program: the same $(stat -c %s "$work/a/build/bin/$program") bytes"
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
    fi
done
echo "$passed passed, $failed failed"
[ $failed -eq 0 ]
