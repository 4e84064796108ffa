#!/usr/bin/env bash
# Reads the sources without running them: clang-tidy (.clang-tidy), clang-format, shellcheck, pyflakes,
# that only src/handles allocates and frees, and that includes run in no circle. Installs what is
# missing. Prints what is wrong; the exit status is 0 only when nothing is.
#
# usage: scripts/lint.sh [--junitxml FILE] [FILE.cpp ...]
#        with files, only clang-tidy, and only on those
set -u
cd "$(dirname "$0")/.." || exit 1

build=build/lint/configured # without headers that are parsed once for all, so each file must include what it needs
out=build/lint
plugin=$out/own_code_only.so
report=
if [ "${1:-}" = --junitxml ]; then
    report=$2
    shift 2
fi
rm -rf "$out"
mkdir -p "$out"
cases=
failed=0

check() { # NAME COMMAND...
    local name=$1 log=$out/$1.log
    shift
    if "$@" >"$log" 2>&1; then
        printf 'ok      %s\n' "$name"
        cases+="<testcase classname=\"lint\" name=\"$name\"/>"
    else
        printf 'FAILED  %s\n' "$name"
        # clang-tidy says of each file how many findings in the library's headers it left out.
        grep -v ' warnings\? generated\.$' "$log" | tail -n 200
        cases+="<testcase classname=\"lint\" name=\"$name\"><failure message=\"see $log\"/></testcase>"
        failed=$((failed + 1))
    fi
}

make_plugin() { # the checks visit our own files only: half the time
    c++ -std=c++17 -fno-rtti -fPIC -shared -isystem "$(llvm-config-14 --includedir)" \
        scripts/own_code_only.cpp -o "$plugin"
}

tidy() { # FILE...: as many at a time as there are cores, the largest first
    cmake --preset release -B "$build" -DVELM_PRECOMPILE=OFF >"$out/configure.log" || return 1
    printf '%s\0' "$@" | xargs -0 ls -S --zero |
        xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 "${load[@]}" -p "$build" --quiet
}

planted() { # what is made quick must still find what it is for
    /usr/bin/python3 -B tests/lint/check_planted.py "${load[@]}"
}

format() {
    git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run -Werror
}

shell() {
    local openwrt=packaging/openwrt/files
    git ls-files -z '*.sh' .ci/run "$openwrt/*.init" "$openwrt/*.rpcd" \
        'packaging/debian/*rm' | xargs -0 shellcheck
    git ls-files -z packaging/bash-completion | xargs -0 shellcheck -s bash
}

python() {
    git ls-files -z '*.py' | xargs -0 /usr/bin/python3 -m pyflakes
}

sources() {
    git ls-files 'src/*.cpp' 'platform/host/*.cpp' 'tools/*.cpp'
}

./scripts/install-dependencies.sh clang-tidy-14 clang-format-14 shellcheck python3-pyflakes || exit 1
load=()
if ./scripts/install-dependencies.sh libclang-14-dev llvm-14-dev; then
    check plugin make_plugin
    load=("--load=$plugin")
else
    echo "clang-tidy takes twice as long without its plugin."
fi
if [ $# -gt 0 ]; then
    check clang-tidy tidy "$@"
else
    check format format
    check shell shell
    check python python
    check ownership /usr/bin/python3 -B scripts/check-ownership.py
    check includes /usr/bin/python3 -B scripts/check-includes.py
    check planted planted
    mapfile -t files < <(sources)
    check clang-tidy tidy "${files[@]}"
fi
[ -z "$report" ] || printf '<testsuite name="lint">%s</testsuite>\n' "$cases" >"$report"
[ $failed -eq 0 ]
