#!/bin/sh
# Installs the Debian packages that building, testing and the demo need, and only the missing ones.
# Silent when nothing is missing. Packages named on the command line are wanted as well.

install_dependencies() (
    set -eu
    packages="
        build-essential cmake ninja-build pkg-config git
        libevent-dev libevhtp-dev libonig-dev libssl-dev libcbor-dev libcjose-dev libjansson-dev
        libcjson-dev libcrypt-dev libgtest-dev libgmock-dev libbenchmark-dev
        python3 python3-pytest python3-pytest-xdist python3-cbor2 python3-cryptography
        python3-jwcrypto python3-yaml python3-jsonschema faketime iproute2 socat curl openssl
        python3-gi gir1.2-gssdp-1.6 ca-certificates procps mandoc util-linux
        busybox dash
        $*
    "
    missing=
    for package in $packages; do
        status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
        [ "$status" = installed ] || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0

    if [ "$(id -u)" -ne 0 ]; then
        echo "These packages are missing, and only root can install them:$missing" >&2
        return 1
    fi
    echo "Installing:$missing"
    export DEBIAN_FRONTEND=noninteractive
    log=$(mktemp)
    trap 'rm -f "$log"' EXIT
    mkdir -p /run/lock
    exec 9>/run/lock/velmd-install-dependencies
    flock 9 # apt does not wait for another of these scripts that installs
    # shellcheck disable=SC2086  # one word a package
    if ! { apt-get -q update && apt-get -qy -o DPkg::Lock::Timeout=300 install --no-install-recommends $missing; } \
        >"$log" 2>&1
    then
        tail -n 40 "$log" >&2
        return 1
    fi
)

install_dependencies "$@"
