#!/usr/bin/env bash
# Installs what is missing, builds release and asan, runs all unit and end-to-end tests on both and
# reads the sources (scripts/lint.sh). On the first preset the end-to-end tests that depend
# on the version of TLS run again with phones and a cloud that are strict about it. For another machine it
# runs the quick form of scripts/cross.sh. Each step says how long it took.
# The last line says "N passed, N failed"; the exit status is 0 only when nothing failed.
#
# usage: scripts/test.sh [PRESET ...]      default: release asan
set -u
cd "$(dirname "$0")/.." || exit 1

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release asan)
other=armhf # the quickest machine of scripts/cross.sh
other_compiler=g++-arm-linux-gnueabihf
results=build/test-results
rm -rf "$results"
mkdir -p "$results"
# shellcheck source=/dev/null
. scripts/steps.sh

unit() { # PRESET
    local log=$results/unit-$1.log status=0
    rm -rf "build/$1/test-results"
    ctest --test-dir "build/$1" -j "$(nproc)" --output-on-failure >"$log" 2>&1 || status=1
    unit_results "$log" "build/$1" "$status" "$1"
}

python_tests() { # PRESET NAME FOLDER [OPTION ...]
    # More processes than cores: most tests wait for a daemon, a few for half a minute.
    /usr/bin/python3 -m pytest -q -p no:cacheprovider -n 4 --dist loadgroup \
        --build="build/$1" --junitxml="$results/$2-$1.xml" "${@:3}"
}

storms() { # PRESET: three seeds at once, since they mostly wait
    local seed pids=() status=0
    for seed in 1 2 3; do
        PYTHONPATH=sim:tests/harness timeout 300 /usr/bin/python3 -B -m velm_harness.storm "$seed" 60 \
            --build "build/$1" --junit "$results/storm-$seed.xml" >"$results/storm-$seed.log" 2>&1 &
        pids+=($!)
    done
    for seed in 1 2 3; do
        wait "${pids[seed - 1]}" || { status=1; tail -n 100 "$results/storm-$seed.log"; }
        tail -n 2 "$results/storm-$seed.log"
    done
    return $status
}

soak() { # PRESET
    PYTHONPATH=sim:tests/harness timeout 300 /usr/bin/python3 -B -m velm_harness.soak 500 \
        --build "build/$1" --junit "$results/soak.xml"
}

bench_tests() { # PRESET: the load client is built on demand
    ./scripts/build.sh "$1" velm-https-load && python_tests "$1" bench tests/bench
}

# Its programs were built beside other steps, but its tests have times to keep.
other_machine() {
    local file status=0
    end "build-$other" || status=$?
    if [ $status -ne 0 ] && grep -qx 'failed: root and emulator' "$results/build-$other.log"; then
        # A mirror without the other machine's packages is no fault of the code; the sum says "skipped".
        printf '<testsuite name="%s"><testcase name="%s"><skipped message="%s"/></testcase></testsuite>\n' \
            "$other" "$other" "its packages cannot be fetched" >"$results/$other.xml"
        return 0
    fi
    [ $status -eq 0 ] || return "$status"
    ./scripts/cross.sh "$other" --quick || status=$?
    for file in build/cross/"$other"/build/results/*.xml; do
        [ -e "$file" ] && cp "$file" "$results/$other-$(basename "$file")"
    done
    return $status
}

# A command beside the next steps. It has the processor time that they leave, so it slows no test down.
declare -A beside
begin() { # NAME COMMAND...
    local name=$1
    shift
    chrt --idle 0 "$@" >"$results/$name.log" 2>&1 &
    beside[$name]=$!
}

end() { # NAME
    wait "${beside[$1]}"
    local status=$?
    cat "$results/$1.log"
    return $status
}

storms_and_soak() { # PRESET-OF-THE-STORMS PRESET-OF-THE-SOAK: the storms mostly wait
    local status=0
    storms "$1" &
    local storms=$!
    soak "$2" || status=1
    wait "$storms" || status=1
    return $status
}

step "install what is missing" ./scripts/install-dependencies.sh systemd systemd-container strace valgrind \
    "$other_compiler"
step "build ${presets[0]}" ./scripts/build.sh "${presets[0]}"
for index in "${!presets[@]}"; do
    preset=${presets[index]}
    next=${presets[index + 1]:-}
    if [ -n "$next" ]; then
        begin "build-$next" ./scripts/build.sh "$next"
    else
        begin "build-$other" ./scripts/cross.sh "$other" --quick --build
        begin lint ./scripts/lint.sh --junitxml "$results/lint.xml"
    fi
    step "unit tests, $preset" unit "$preset"
    step "end-to-end tests, $preset" python_tests "$preset" e2e tests/e2e
    [ -z "$next" ] || step "build $next, begun before these tests" end "build-$next"
done
for tls in 1.2 1.3; do
    step "end-to-end tests with TLS $tls only, ${presets[0]}" \
        python_tests "${presets[0]}" "e2e-tls-$tls" tests/e2e -m each_tls "--tls=$tls"
done
step "tests of the documents" python_tests "${presets[0]}" documents tests/documents
step "tests of the OpenWrt package" python_tests "${presets[0]}" openwrt tests/openwrt
step "tests of lint" python_tests "${presets[0]}" lint tests/lint
step "tests of the simulator" python_tests "${presets[0]}" sim tests/sim
step "tests of the harness" python_tests "${presets[0]}" harness tests/harness
case " ${presets[*]} " in *" asan "*) instrumented=asan ;; *) instrumented=${presets[0]} ;; esac
step "storm, $instrumented, and soak, ${presets[0]}" storms_and_soak "$instrumented" "${presets[0]}"
step "lint, begun before the tests of ${presets[-1]}" end lint
step "$other: unit tests and demo under an emulator" other_machine
step "tests of the benchmarks' report" bench_tests "${presets[0]}"
finish
