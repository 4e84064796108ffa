#!/usr/bin/env bash
# Does velmd build and work on another Debian? Debian 11 has the oldest toolchain and libraries that
# docs/porting.md promises: GCC 10, CMake 3.18, OpenSSL 1.1.1, libcbor 0.5, cjose 0.6.1. Debian 13 has newer
# ones than this machine: GCC 14, OpenSSL 3.5. Makes that Debian below build/debian-NUMBER, builds all
# programs there, runs the unit tests there and the demo with the programs from there. For a Debian 12,
# as root. The root is kept for the next time; --anew makes a new one.
# The last line says "N passed, N failed"; the exit status is 0 only when nothing failed.
#
# usage: scripts/other-debian.sh [--anew] 11|13 [MIRROR]     MIRROR: of that Debian, if it is not this machine's
set -u
cd "$(dirname "$0")/.." || exit 1

anew=
if [ "${1:-}" = --anew ]; then
    anew=yes
    shift
fi
case "${1:-}" in
    11) release=bullseye bench=OFF ;; # Google Benchmark is too old there
    13) release=trixie bench=ON ;;
    *)
        echo "usage: $0 [--anew] 11|13 [MIRROR]" >&2
        exit 2
        ;;
esac
source_root=$PWD
out=$PWD/build/debian-$1
root=$out/root
build=$out/build
results=$out/test-results
packages=(
    g++ cmake ninja-build pkg-config libevent-dev libevhtp-dev libonig-dev libssl-dev libcbor-dev
    libcjose-dev libjansson-dev libcjson-dev libcrypt-dev libgtest-dev libgmock-dev
    openssl procps
)
[ "$bench" = OFF ] || packages+=(libbenchmark-dev)
# shellcheck source=/dev/null
. scripts/steps.sh

if [ "$(id -u)" -ne 0 ]; then
    echo "A root is made and entered: run it as root." >&2
    exit 1
fi
[ -z "$anew" ] || rm -rf "$out"
rm -rf "$results"
mkdir -p "$results"

tools() {
    ./scripts/install-dependencies.sh mmdebstrap debian-archive-keyring patchelf
}

make_root() { # MIRROR
    [ ! -e "$root/complete" ] || { echo "It is there from the last time."; return; }
    rm -rf "$root"
    local wanted
    wanted=$(IFS=, && echo "${packages[*]}")
    quietly "$out/root.log" mmdebstrap --variant=essential --include="$wanted" "$release" "$root" \
        "deb ${1:-$(debian_mirror)} $release main" || return
    touch "$root/complete"
}

# In namespaces of their own: whatever ends this script also ends what runs there, and unmounts. The
# sources have the same path inside and cannot be changed.
inside() { # COMMAND...
    # shellcheck disable=SC2016  # the inner shell expands them
    unshare --mount --pid --fork --kill-child --propagation private sh -euc '
        root=$1 sources=$2 build=$3
        shift 3
        mkdir -p "$build"
        mount --bind "$root" "$root" # tests change how the root is mounted
        mount -t proc proc "$root/proc"
        mount -t sysfs -o ro sysfs "$root/sys"
        mount --rbind /dev "$root/dev"
        mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
        mkdir -p "$root$sources" # only now: the clone may lie in /tmp
        mount --bind "$sources" "$root$sources"
        mount -o remount,bind,ro "$root$sources"
        mount --bind "$build" "$root$build"
        exec chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
            sh -euc '\''cd "$0" && exec "$@"'\'' "$sources" "$@"' \
        sh "$root" "$source_root" "$build" "$@"
}

versions() {
    # shellcheck disable=SC2016  # the inner shell expands it
    inside sh -euc 'g++ --version | head -n 1; cmake --version | head -n 1; openssl version
        for name in libevent libcbor cjose libcjson jansson; do
            echo "$name $(pkg-config --modversion $name)"
        done'
}

compile() {
    quietly "$results/configure.log" inside cmake -S . -B "$build" -G Ninja \
        -DCMAKE_BUILD_TYPE=Release -DVELM_BENCH=$bench &&
        quietly "$results/build.log" inside cmake --build "$build" -j "$(nproc)" -- -k 0
}

unit() {
    local status=0
    rm -rf "$build/test-results"
    # shellcheck disable=SC2016  # the inner shell expands it
    inside sh -c 'cd "$0" && ctest -j "$(nproc)" --output-on-failure' "$build" \
        >"$results/unit.log" 2>&1 || status=$?
    unit_results "$results/unit.log" "$build" "$status"
}

# The phones and the cloud need a newer Python than Debian 11 has, so they run here. The programs run here
# as well, but with the root's loader and libraries.
demo() {
    local program loader
    loader=$(realpath "$root"/lib/x86_64-linux-gnu/ld-linux-x86-64.so.2)
    rm -rf "$out/demo"
    mkdir -p "$out/demo/bin"
    for program in velmd velmctl nvram; do
        cp "$build/bin/$program" "$out/demo/bin" || return
        patchelf --set-interpreter "$loader" --force-rpath \
            --set-rpath "$root/lib/x86_64-linux-gnu:$root/usr/lib/x86_64-linux-gnu" \
            "$out/demo/bin/$program" || return
    done
    "$loader" --list "$out/demo/bin/velmd" | grep -E 'lib(ssl|crypto)' || return
    PYTHONPATH=sim quietly "$results/demo.log" \
        case_of demo demo /usr/bin/python3 -B -m velm_sim.demo --build "$out/demo" || return
    tail -n 3 "$results/demo.log"
}

step "install what is missing" tools || finish
step "make a Debian $1" make_root "${@:2}" || finish
step "what it has" versions
step "build all programs and tests" compile
step "unit tests" unit
step "demo" demo
finish
