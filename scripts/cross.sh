#!/usr/bin/env bash
# Cross-builds for another machine and tries the build under an emulator: unit tests, the demo and the
# end-to-end tests in which machines differ. Installs the cross compiler; takes the other machine's
# libraries and the emulator from Debian packages without installing them (scripts/cross-root.sh).
# Everything lies below build/cross. Each step says how long it took.
# The last line says "N passed, N failed"; the exit status is 0 only when nothing failed.
#
# usage: scripts/cross.sh ARCH [--quick | --all] [--build]      ARCH: arm64, armhf, s390x or mipsel
#
#   --quick   leaves out the end-to-end tests, and runs the unit tests of two dozen modules that handle
#             bytes, characters, words or times themselves
#   --all     runs every end-to-end test of the files in which machines differ, not the marked ones alone
#   --build   runs nothing, so that what is built is there for the next time
set -u
cd "$(dirname "$0")/.." || exit 1

usage() {
    sed -n 's/^# *\(usage: .*\)/\1/p' "$0" >&2
    exit 2
}

arch=${1:-}
case $arch in
    arm64) triplet=aarch64-linux-gnu emulator=aarch64 ;;
    armhf) triplet=arm-linux-gnueabihf emulator=arm ;;
    s390x) triplet=s390x-linux-gnu emulator=s390x ;;
    mipsel) triplet=mipsel-linux-gnu emulator=mipsel ;;
    *) usage ;;
esac
shift
form=whole run=yes
for option; do
    case $option in
        --quick) form=quick ;;
        --all) form=all ;;
        --build) run=no ;;
        *) usage ;;
    esac
done
if [ "$(id -u)" -ne 0 ]; then
    echo "Emulator and tests need namespaces: run it as root." >&2
    exit 1
fi

at=$PWD/build/cross
root=$at/$arch/root
build=$at/$arch/build
qemu=$at/emulator/root/usr/bin/qemu-$emulator
results=$build/results
mkdir -p "$results"
rm -f "$results"/*
# shellcheck source=/dev/null
. scripts/steps.sh

# Modules in which a machine's byte order, char, words or time_t show.
quick_tests='^((bytes_reader|json_text|text_utf8|cutils_moment|crypto_sha256|config_value|story_story|platform_nvram_store|ios_validation_(auth_data|cbor|objects)|http_server_(chunks|head_filter|intake)|ipc_report_queue|velm_(challenge_engine|conn|ipc|ipc_cmd|location_policy_ipc|ssdp_server|utils)|velmctl_print)_test|ipc_header_c11)$'
chosen_tests=.
[ $form != quick ] || chosen_tests=$quick_tests
end_to_end_tests=(
    tests/e2e/test_{round_trip,http_api,bad_input,local_clients,ssdp,tls,login,shadow}.py
    tests/e2e/test_{android_local,stories,velmctl,control_api,vendor_platform,platform_check}.py
)

foreign() { # COMMAND...
    ./scripts/run-foreign.py "$qemu" "$root" "$@"
}

configure() {
    VELM_SYSROOT=$root cmake -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELM_BENCH=OFF \
        "-DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/toolchains/$arch.cmake" "-DVELM_EMULATOR=$qemu"
}

compile() {
    local log=$results/build.log targets=()
    configure >"$log" 2>&1 || { tail -n 100 "$log"; return 1; }
    if [ $form = quick ]; then
        # A test program and its target have one name.
        mapfile -t targets < <(ctest --test-dir "$build" -N -R "$chosen_tests" |
            sed -n 's/^ *Test *#[0-9]*: //p')
        targets=(--target velmd velmctl nvram "${targets[@]}")
    fi
    # All of it, whatever fails: each file may have an error of its own for this machine.
    cmake --build "$build" ${targets[@]+"${targets[@]}"} -- -k 0 >>"$log" 2>&1 ||
        { grep -A 20 '^FAILED' "$log" | tail -n 100; return 1; }
}

unit() {
    local log=$results/unit.log status=0
    rm -rf "$build/test-results"
    echo "Left out, because an emulated program can take all memory of this machine:"
    ctest --test-dir "$build" -N -L exhausts_memory -R "$chosen_tests" | sed -n 's/^ *Test *#[0-9]*: /    /p'
    foreign ctest --test-dir "$build" -j "$(nproc)" -R "$chosen_tests" -LE exhausts_memory \
        --output-on-failure >"$log" 2>&1 || status=1
    unit_results "$log" "$build" "$status"
}

demo() {
    PYTHONPATH=sim foreign /usr/bin/python3 -m velm_sim.demo --build "$build" >"$results/demo.log" 2>&1 ||
        { tail -n 60 "$results/demo.log"; return 1; }
    tail -n 1 "$results/demo.log"
}

end_to_end() {
    local marked=(-m each_machine)
    [ $form != all ] || marked=()
    foreign /usr/bin/python3 -m pytest -q -p no:cacheprovider -n 4 --dist loadgroup \
        --build="$build" --junitxml="$results/e2e.xml" \
        "${end_to_end_tests[@]}" ${marked[@]+"${marked[@]}"}
}

step "install what is missing" ./scripts/install-dependencies.sh "g++-$triplet" || finish
step "root and emulator" ./scripts/cross-root.sh "$arch" "$at" || finish
step "build" compile || finish
[ $run = yes ] || exit 0
step "unit tests" unit
step "demo" case_of demo "demo, $arch" demo
[ $form = quick ] || step "end-to-end tests" end_to_end
printf '\n%s, %s, after %d s\n' "$arch" "$form" $SECONDS
finish
