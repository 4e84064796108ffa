#!/usr/bin/env bash
# Makes what scripts/cross.sh needs of Debian packages and does not install: a root with what the daemon
# and its tests link with on another machine, and the emulator that runs them. Packages come from where
# this machine's own come from, by an apt whose state lies beside the root: what this machine has
# installed does not change. Does nothing when both are there and as this script would make them.
#
# usage: scripts/cross-root.sh ARCH FOLDER      makes FOLDER/ARCH/root and FOLDER/emulator
set -euo pipefail
cd "$(dirname "$0")/.."

arch=$1
mkdir -p "$2/$1" "$2/emulator"
at=$(cd "$2" && pwd)
libraries=(
    libc6-dev libevent-dev libevhtp-dev libssl-dev libcbor-dev libcjose-dev libjansson-dev
    libcjson-dev libcrypt-dev libonig-dev libgtest-dev libgmock-dev libstdc++6 libfaketime
)
made_by=$(sha256sum <"$0")

is_made() { # FOLDER
    [ "$(cat "$1/made-by" 2>/dev/null)" = "$made_by" ]
}

fetch() { # FOLDER ARCH SOURCES PACKAGE...: into FOLDER/apt/archives, with what they depend on
    local apt=$1/apt arch=$2 sources=$3
    shift 3
    rm -rf "$apt"
    mkdir -p "$apt/lists/partial" "$apt/archives/partial"
    : >"$apt/status"
    cat >"$apt/conf" <<END
APT::Architecture "$arch";
APT::Architectures { "$arch"; };
APT::Sandbox::User "root";
Acquire::Languages "none";
Dir::State "$apt";
Dir::State::status "$apt/status";
Dir::Cache "$apt";
$sources
END
    local -x APT_CONFIG=$apt/conf
    if ! { apt-get -q update || apt-get -q update; } >"$apt/log" 2>&1; then
        # A mirror that lacks one list for a while need not lack the packages.
        grep '^E:' "$apt/log" >&2
        echo "Going on with the lists that came." >&2
    fi
    if ! apt-get -qy install --download-only --no-install-recommends "$@" >"$apt/log" 2>&1; then
        tail -n 40 "$apt/log" >&2
        return 1
    fi
}

unpack() { # FOLDER ROOT
    local package
    for package in "$1"/apt/archives/*.deb; do
        dpkg-deb --fsys-tarfile "$package" | tar -C "$2" --keep-directory-symlink -x
    done
    rm -rf "$1/apt"
}

# Libraries name each other from the root of the file system: below another root they must not.
make_links_relative() { # ROOT
    local link
    find "$1" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
        ln -snfr "$1$(readlink "$link")" "$link"
    done
}

make_root() {
    local folder
    echo "Making a root for $arch ..."
    fetch "$at/$arch" "$arch" "" "${libraries[@]}"
    rm -rf "$at/$arch/root"
    for folder in bin lib sbin; do
        mkdir -p "$at/$arch/root/usr/$folder"
        ln -s "usr/$folder" "$at/$arch/root/$folder"
    done
    unpack "$at/$arch" "$at/$arch/root"
    # The emulator opens a file of this root before one of this machine, from which all but the libraries
    # is wanted.
    (cd "$at/$arch/root" && rm -rf bin etc sbin tmp var usr/bin usr/libexec usr/sbin usr/share/{doc,man,locale})
    make_links_relative "$at/$arch/root"
    printf '%s\n' "$made_by" >"$at/$arch/made-by"
}

# The one of Debian 12 passes no multicast option on to the kernel, and starts itself where a program
# starts /proc/self/exe. Backports have a newer one.
make_emulator() {
    local mirror codename apt=$at/emulator
    echo "Fetching the emulator ..."
    codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    # shellcheck disable=SC2016  # apt expands it
    mirror=$(apt-get indextargets --format '$(REPO_URI)' \
        "Created-By: Packages" "Codename: $codename" "Component: main" | head -n 1)
    printf 'deb [signed-by=%s] %s %s-backports main\n' \
        /usr/share/keyrings/debian-archive-keyring.gpg "$mirror" "$codename" >"$apt/backports.list"
    fetch "$apt" "$(dpkg --print-architecture)" \
        "Dir::Etc::sourcelist \"$apt/backports.list\"; Dir::Etc::sourceparts \"-\";" qemu-user
    rm -rf "$apt/root"
    mkdir "$apt/root"
    unpack "$apt" "$apt/root"
    printf '%s\n' "$made_by" >"$apt/made-by"
}

is_made "$at/$arch" || make_root
is_made "$at/emulator" || make_emulator
