#!/bin/sh
# Builds the Debian packages into build/package and lets lintian examine them. Installs what is missing.
#
# usage: scripts/package.sh
set -eu
cd "$(dirname "$0")/.."

out=$PWD/build/package
version=$(sed -n 's/^project(velmd VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
tree=$out/velmd-$version
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH

# The sources as they are now, so that building changes nothing beside them.
copy_sources() {
    rm -rf "$tree"
    mkdir -p "$tree"
    # shellcheck disable=SC2016  # the inner shell expands it
    git ls-files -z --cached --others --exclude-standard |
        xargs -0 sh -c 'for file; do [ ! -e "$file" ] || printf "%s\0" "$file"; done' sh |
        tar --create --null --files-from=- --file=- | tar --extract --directory="$tree" --file=-
    cp -r packaging/debian "$tree/debian"
    cp packaging/systemd/velmd.* "$tree/debian"
    cat >"$tree/debian/changelog" <<END
velmd ($version-0velm1) unstable; urgency=medium

  * CHANGELOG.md says what is new.

 -- $(sed -n 's/^Maintainer: //p' packaging/debian/control)  $(date -R -u -d "@$SOURCE_DATE_EPOCH")
END
}

build_packages() {
    rm -f "$out"/*.deb "$out"/*.changes "$out"/*.buildinfo
    if ! (cd "$tree" && dpkg-buildpackage --build=binary --no-sign) >"$out/build.log" 2>&1; then
        tail -n 60 "$out/build.log" >&2
        return 1
    fi
}

./scripts/install-dependencies.sh debhelper dpkg-dev lintian
mkdir -p "$out"
copy_sources
echo "Building the packages ..."
build_packages
lintian --allow-root --fail-on error,warning "$out"/*.changes
ls "$out"/*.deb
