#!/usr/bin/env bash
# Does velmd build and run with musl? Builds a C++ runtime for musl and the libraries that velmd needs, all
# from Debian's source packages, below build/musl. Links the programs dynamically (musl's libc.so) and
# statically; both run the demo. For a Debian 12 on x86-64, as root. What is done stays for the next time;
# --anew begins from nothing.
# The last line says "N passed, N failed"; the exit status is 0 only when nothing failed.
#
# usage: scripts/musl.sh [--anew]
set -u
cd "$(dirname "$0")/.." || exit 1

target=x86_64-linux-musl
out=$PWD/build/musl
sources=$out/sources
toolchain=$out/toolchain
prefix=$out/prefix
results=$out/test-results
programs=(velmd velmctl nvram velm-platform-check)
[ "${1:-}" != --anew ] || rm -rf "$out"
rm -rf "$results"
mkdir -p "$results" "$sources" "$toolchain/bin" "$prefix/lib/pkgconfig" "$out/done" "$out/logs"
# shellcheck source=/dev/null
. scripts/steps.sh

once() { # NAME COMMAND...
    [ ! -e "$out/done/$1" ] || { echo "It is there from the last time."; return; }
    (quietly "$out/logs/$1.log" "${@:2}") && touch "$out/done/$1"
}

tools() {
    ./scripts/install-dependencies.sh musl-dev dpkg-dev patch gcc-12 g++-12 libgmp-dev libmpfr-dev \
        libmpc-dev autoconf automake libtool debian-archive-keyring
}

# ---- Debian's source packages, from where this machine has its packages ----

private_apt() { # RELEASE COMMAND ...
    "$2" -q -o Dir::Etc::sourcelist="$out/apt/$1.list" -o Dir::Etc::sourceparts=/dev/null \
        -o Dir::State::lists="$out/apt/$1" -o APT::Sandbox::User=root "${@:3}"
}

list_sources() {
    mkdir -p "$out/apt/own/partial" "$out/apt/next/partial"
    apt-get indextargets --format "\$(ORIGIN) deb-src \$(REPO_URI) \$(RELEASE) \$(COMPONENT)" \
        'Created-By: Packages' | sed -n 's/^Debian //p' >"$out/apt/own.list"
    echo "deb-src $(debian_mirror) trixie main" >"$out/apt/next.list"
    private_apt own apt-get update && private_apt next apt-get update
}

fetch_whole() { # NAME RELEASE VERSION
    private_apt "$2" apt-get source --download-only "$1=$3" &&
        dpkg-source --no-check -x "${1}_${3#*:}.dsc" "$sources/$1"
}

fetch_original() { # NAME RELEASE VERSION
    local version=${3#*:}
    private_apt "$2" apt-get source --tar-only "$1=$3" && mkdir -p "$sources/$1" &&
        tar -xf "${1}_${version%-*}.orig.tar."?z* --strip-components 1 -C "$sources/$1" &&
        echo "$1 $3: without what Debian has changed" >>"$out/remarks"
}

# Not every mirror has every file. Where a version of this Debian is not whole, another one is taken, or the
# sources as they were before Debian changed them, or the next Debian's.
fetch() { # NAME: into $sources/NAME
    local how release version
    mkdir -p "$sources/$1.files" && cd "$sources/$1.files" || return
    for release in own next; do
        for how in fetch_whole fetch_original; do
            for version in $(private_apt "$release" apt-cache showsrc --only-source "$1" |
                sed -n 's/^Version: //p' | sort -rV); do
                "$how" "$1" "$release" "$version" && return
            done
        done
    done
    return 1
}

# ---- The toolchain: Debian's GCC with musl's headers, and GCC's runtime built for musl ----

compiler() { # NAME PROGRAM FLAGS: flags of the caller come first
    cat >"$toolchain/bin/$target-$1" <<END
#!/bin/sh
exec $2 "\$@" $3 -idirafter $toolchain/kernel -specs $toolchain/musl.specs
END
    chmod +x "$toolchain/bin/$target-$1"
}

# musl-dev has the specs for C. The runtime comes from here: Debian's belongs to glibc. And they do not know
# -static-pie.
make_specs() {
    local musl=/usr/lib/$target
    sed -e "s|^libgcc.a%s .*|$toolchain/lib/libgcc.a %:if-exists($toolchain/lib/libgcc_eh.a)|" \
        -e "s|$musl/Scrt1.o|%{static-pie:$musl/rcrt1.o;:$musl/Scrt1.o}|" \
        -e 's|^-dynamic-linker [^ ]*|%{static-pie:-static -pie --no-dynamic-linker -z text;:&}|' \
        "$musl/musl-gcc.specs" >"$toolchain/musl.specs"
}

make_compilers() {
    local name
    make_specs
    mkdir -p "$toolchain/kernel" "$toolchain/lib"
    ln -sfn /usr/include/linux "$toolchain/kernel/linux"
    ln -sfn /usr/include/asm-generic "$toolchain/kernel/asm-generic"
    ln -sfn /usr/include/x86_64-linux-gnu/asm "$toolchain/kernel/asm"
    compiler gcc gcc-12 ""
    compiler g++ g++-12 ""
    for name in ar ranlib nm; do
        ln -sf "/usr/bin/gcc-$name-12" "$toolchain/bin/$target-$name"
    done
    for name in ld as strip objcopy objdump readelf; do
        ln -sf "/usr/bin/$name" "$toolchain/bin/$target-$name"
    done
    cat >"$toolchain/bin/pkg-config" <<'END'
#!/bin/sh
exec /usr/bin/pkg-config --static "$@"
END
    chmod +x "$toolchain/bin/pkg-config"
    cat >"$toolchain/musl.cmake" <<END
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER $toolchain/bin/$target-gcc)
set(CMAKE_CXX_COMPILER $toolchain/bin/$target-g++)
set(CMAKE_AR /usr/bin/gcc-ar-12 CACHE FILEPATH "")
set(CMAKE_RANLIB /usr/bin/gcc-ranlib-12 CACHE FILEPATH "")
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/env)
set(CMAKE_FIND_ROOT_PATH $prefix)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(PKG_CONFIG_EXECUTABLE $toolchain/bin/pkg-config CACHE FILEPATH "")
set(ENV{PKG_CONFIG_LIBDIR} $prefix/lib/pkgconfig)
END
}

# Configures as if the whole compiler would be built, but makes only what its runtime needs of it.
make_runtime() {
    local gcc=$out/gcc build=$out/gcc-build
    export PATH=$toolchain/bin:$PATH
    rm -rf "$gcc" "$build" "$toolchain/include"
    mkdir -p "$gcc" "$build/$target/libgcc" "$build/$target/libstdc++-v3"
    fetch gcc-12 && make_compilers || return
    tar -xf "$sources/gcc-12"/gcc-12*.tar.xz -C "$gcc" --strip-components 1 || return
    # The documentation is not in Debian's sources, and a generated file must not be made from it.
    patch -d "$gcc" -p2 <"$sources/gcc-12/debian/patches/gcc-gfdl-build.diff" || return
    cd "$build" || return
    "$gcc/configure" --target=$target --enable-languages=c,c++ --disable-bootstrap --disable-multilib \
        --disable-nls --disable-lto --disable-plugin --enable-default-pie &&
        make -j "$(nproc)" MAKEINFO=true configure-gcc all-build-libiberty &&
        make -C gcc -o xgcc -o specs -o gcc-cross -o macro_list STMP_FIXINC= \
            libgcc-support tm.h options.h insn-constants.h insn-modes.h || return
    local common=(
        --build=x86_64-linux-gnu "--host=$target" "--target=$target" "--with-target-subdir=$target"
        --with-cross-host=x86_64-linux-gnu "--prefix=$toolchain" "CC=$target-gcc" 'CFLAGS=-O2 -g0'
    )
    cd "$build/$target/libgcc" && "$gcc/libgcc/configure" "${common[@]}" &&
        make -j "$(nproc)" libgcc.a libgcc_eh.a && cp libgcc.a libgcc_eh.a "$toolchain/lib" || return
    cd "$build/$target/libstdc++-v3" && "$gcc/libstdc++-v3/configure" "${common[@]}" --disable-multilib \
        --disable-nls --disable-libstdcxx-pch --disable-libstdcxx-filesystem-ts \
        --with-gxx-include-dir="$toolchain/include/c++" CXX="$target-g++ -nostdinc++" 'CXXFLAGS=-O2 -g0' &&
        make -j "$(nproc)" && make install || return
    find "$toolchain" -name 'libstdc++.so*' -delete
    find "$toolchain" -name 'libstdc++.a' -exec mv -n -t "$toolchain/lib" {} +
    compiler g++ g++-12 "-nostdinc++ -isystem $toolchain/include/c++ \
-isystem $toolchain/include/c++/$target -L$toolchain/lib"
}

# ---- The libraries, all static ----

with_cmake() { # NAME OPTION...
    fetch "$1" && cmake -S "$sources/$1" -B "$out/libraries/$1" -G Ninja \
        -DCMAKE_TOOLCHAIN_FILE="$toolchain/musl.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=OFF \
        -DCMAKE_POSITION_INDEPENDENT_CODE=ON -DCMAKE_C_FLAGS=-ffat-lto-objects "${@:2}" &&
        cmake --build "$out/libraries/$1" && cmake --install "$out/libraries/$1"
}

# Its public header wants <sys/queue.h>, which musl does not have and libevhtp brings.
with_evhtp() {
    with_cmake libevhtp && cp -r "$out/libraries/libevhtp/compat/sys" "$prefix/include"
}

with_openssl() {
    fetch openssl && mkdir -p "$out/libraries/openssl" && cd "$out/libraries/openssl" &&
        "$sources/openssl/Configure" linux-x86_64 --prefix="$prefix" --libdir=lib --openssldir=/etc/ssl \
            no-shared no-tests no-engine no-legacy no-module CC="$toolchain/bin/$target-gcc" &&
        make -j "$(nproc)" build_libs && make install_dev
}

# Debian's musl comes without crypt().
with_libxcrypt() {
    fetch libxcrypt && cd "$sources/libxcrypt" || return
    [ -e configure ] || autoreconf -fi || return
    ./configure --host=$target --prefix="$prefix" --disable-shared --enable-static --with-pic \
        --disable-obsolete-api --disable-werror CC="$toolchain/bin/$target-gcc" &&
        make -j "$(nproc)" && make install
}

# Where no source can be had, Debian's static library is taken: it has code for glibc, but asks nothing
# of it except this function.
with_cjose() {
    if fetch cjose; then
        cd "$sources/cjose" && ./configure --host=$target --prefix="$prefix" --disable-shared \
            --with-openssl="$prefix" --with-jansson="$prefix" CC="$toolchain/bin/$target-gcc" &&
            make -C src && make -C src install && make -C include install && make install-pkgconfigDATA
        return
    fi
    echo "cjose: its sources cannot be had here; Debian's own libcjose.a" >>"$out/remarks"
    cat >"$out/fortified.c" <<'END'
#include <stdarg.h>
#include <stdio.h>
int __snprintf_chk(char *to, size_t size, int flag, size_t room, const char *format, ...)
{
    va_list arguments;
    (void)flag;
    va_start(arguments, format);
    const int length = vsnprintf(to, size < room ? size : room, format, arguments);
    va_end(arguments);
    return length;
}
END
    "$toolchain/bin/$target-gcc" -O2 -c "$out/fortified.c" -o "$out/fortified.o" &&
        cp /usr/lib/x86_64-linux-gnu/libcjose.a "$prefix/lib" &&
        "$toolchain/bin/$target-ar" rs "$prefix/lib/libcjose.a" "$out/fortified.o" &&
        cp -r /usr/include/cjose "$prefix/include" &&
        sed "s|^prefix=.*|prefix=$prefix|; s|^libdir=.*|libdir=$prefix/lib|" \
            /usr/lib/x86_64-linux-gnu/pkgconfig/cjose.pc >"$prefix/lib/pkgconfig/cjose.pc"
}

# ---- velmd ----

configure() { # KIND OPTION...
    quietly "$results/configure-$1.log" cmake -S . -B "$out/$1" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$toolchain/musl.cmake" -DVELM_TESTS=OFF "${@:2}"
}

compile() { # KIND PROGRAM...
    quietly "$results/build-$1.log" cmake --build "$out/$1" -j "$(nproc)" --target "${@:2}"
}

build_dynamic() {
    configure dynamic && compile dynamic "${programs[@]}" &&
        readelf -l "$out/dynamic/bin/velmd" | grep -o 'interpreter: .*' | tr -d ']' &&
        readelf -d "$out/dynamic/bin/velmd" | sed -n 's/.*Shared library: //p'
}

needs_nobody() { # PROGRAM: no dynamic linker, no library
    ! readelf -ld "$1" | grep -e interpreter -e NEEDED
}

# -U: a cached answer of the last time would hide the default.
link_statically() { # FLAG PROGRAM...
    configure static -DCMAKE_EXE_LINKER_FLAGS="$1" -UVELM_CHECK_MALLOC && compile static "${@:2}" &&
        grep -x 'VELM_CHECK_MALLOC:BOOL=OFF' "$out/static/CMakeCache.txt" &&
        needs_nobody "$out/static/bin/velmd" && readelf -h "$out/static/bin/velmd" | grep 'Type:'
}

build_without_pie() {
    link_statically -static velmd && "$out/static/bin/velmd" -v
}

# Nothing lies behind a static program's own malloc: told to replace it all the same, it says so.
refuse() {
    local said status=0
    configure static -DCMAKE_EXE_LINKER_FLAGS=-static-pie -DVELM_CHECK_MALLOC=ON && compile static velmd &&
        needs_nobody "$out/static/bin/velmd" || return
    said=$("$out/static/bin/velmd" -v 2>&1) || status=$?
    echo "$said (status $status)"
    [ $status -ne 0 ] && [[ $said == *"-DVELM_CHECK_MALLOC=OFF"* ]]
}

demo() { # KIND
    PYTHONPATH=sim quietly "$results/demo-$1.log" \
        /usr/bin/python3 -B -m velm_sim.demo --build "$out/$1" && tail -n 3 "$results/demo-$1.log"
}

step "install what is missing" tools || finish
step "find the sources" once sources list_sources || finish
step "GCC's runtime" once runtime make_runtime || finish
step "openssl" once openssl with_openssl
step "libevent" once libevent with_cmake libevent -DEVENT__LIBRARY_TYPE=STATIC -DEVENT__DISABLE_TESTS=ON \
    -DEVENT__DISABLE_BENCHMARK=ON -DEVENT__DISABLE_SAMPLES=ON
step "libonig" once libonig with_cmake libonig -DENABLE_POSIX_API=ON
step "libevhtp" once libevhtp with_evhtp
step "cjson" once cjson with_cmake cjson -DENABLE_CJSON_TEST=OFF
step "libcbor" once libcbor with_cmake libcbor -DWITH_EXAMPLES=OFF
step "jansson" once jansson with_cmake jansson -DJANSSON_BUILD_DOCS=OFF -DJANSSON_WITHOUT_TESTS=ON \
    -DJANSSON_EXAMPLES=OFF
step "libxcrypt" once libxcrypt with_libxcrypt
step "cjose" once cjose with_cjose
step "link dynamically" case_of dynamic "links dynamically" build_dynamic
step "demo, dynamic" case_of demo-dynamic "demo of the dynamic programs" demo dynamic
step "static, with VELM_CHECK_MALLOC=ON" case_of refuse "says that it cannot check memory" refuse
step "link with -static" case_of no-pie "links with -static and starts" build_without_pie
step "link with -static-pie" case_of static "links with -static-pie" link_statically -static-pie "${programs[@]}"
step "demo, static" case_of demo-static "demo of the static programs" demo static
[ ! -e "$out/remarks" ] || { echo && sort -u "$out/remarks"; }
finish
