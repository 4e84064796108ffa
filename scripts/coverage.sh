#!/bin/sh
# Prints the line coverage of src/: by the unit tests, by the end-to-end tests, and by both.
# Builds the preset "coverage" first; wants root for the end-to-end tests. Installs what is missing.
# A test that fails does not stop it: the figures are of what ran.
set -eu
cd "$(dirname "$0")/.."

./scripts/install-dependencies.sh gcovr

build=build/coverage
results=$build/coverage-results
mkdir -p "$results"
./scripts/build.sh coverage

forget() {
    find "$build" -name '*.gcda' -delete
}

trace() { # NAME: keeps what was counted since forget
    gcovr --root . --object-directory "$build" --filter 'src/' --exclude-throw-branches \
        --json "$results/$1.json" "$build/src"
}

report() { # TITLE TRACE...
    printf '\n== %s\n' "$1"
    shift
    for name in "$@"; do
        set -- "$@" --add-tracefile "$results/$name.json"
        shift
    done
    gcovr --root . --txt "$@"
}

forget
ctest --test-dir "$build" -j "$(nproc)" >"$results/unit.log" || tail -n 20 "$results/unit.log"
trace unit
forget
/usr/bin/python3 -m pytest -q -p no:cacheprovider -n 4 --dist loadgroup --build="$build" tests/e2e >"$results/e2e.log" ||
    tail -n 20 "$results/e2e.log"
trace e2e

report "unit tests" unit
report "end-to-end tests" e2e
report "both" unit e2e
