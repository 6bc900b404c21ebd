#!/usr/bin/env bash
# Builds the libraries that the Windows build links, from Debian's source packages: the very sources
# that the Linux build's development packages were made of. Prints the folder that holds them: one
# for each set of versions and each recipe, where every clone finds it, so that they are built once.
set -eEuo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
exec {answer}>&1 >&2

scripts/install-dependencies.sh \
    autoconf automake dpkg-dev g++-mingw-w64-x86-64-posix googletest libtool make xz-utils

toolchain=$PWD/cmake/kyWindowsToolchain.cmake

# The source packages, one "name=version" each.
sources=$(dpkg-query -W -f '${source:Package}=${source:Version}\n' \
    libtbb-dev qtbase5-dev libsodium-dev liblz4-dev libzstd-dev)
headers=$(dpkg-query -W -f '${Package}=${Version}\n' googletest libcli11-dev nlohmann-json3-dev)
stamp=$({
    printf '%s\n' "$sources" "$headers"
    x86_64-w64-mingw32-g++-posix --version
    cat scripts/windows-prefix.sh "$toolchain"
} | sha256sum)

cache=${XDG_CACHE_HOME:-${HOME:+$HOME/.cache}}
prefix=${cache:-$PWD/build}/kyNetBase/windows-prefix-${stamp:0:16}
work=$prefix.work
log=$work/log # each library's build has its own
echo "$prefix" >&"$answer"

# Clones that build at the same time: the first one does, the others wait for it.
mkdir -p "$(dirname "$prefix")"
exec {lock}>"$prefix.lock"
flock --nonblock "$lock" || { echo "Waiting for another clone's $prefix" && flock "$lock"; }
[ ! -f "$prefix/complete" ] || exit 0

rm -rf "$prefix" "$work"
mkdir -p "$prefix" "$work/apt/lists/partial" "$work/apt/cache/archives/partial" "$work/tools"
trap 'echo "The end of $log:" >&2; tail -n 30 "$log" >&2' ERR

# The system's lists of packages stay as they are.
cat >"$work/apt/sources.list" <<'LIST'
deb-src http://deb.debian.org/debian bookworm main
deb-src http://deb.debian.org/debian bookworm-updates main
deb-src http://deb.debian.org/debian-security bookworm-security main
LIST
cat >"$work/apt/apt.conf" <<CONF
Dir::Etc::SourceList "$work/apt/sources.list";
Dir::Etc::SourceParts "-";
Dir::State::Lists "$work/apt/lists";
Dir::Cache "$work/apt/cache";
APT::Sandbox::User "";
CONF

# Qt calls the compiler without the suffix of its variant.
for tool in gcc g++; do
    ln -s "$(command -v x86_64-w64-mingw32-$tool-posix)" "$work/tools/x86_64-w64-mingw32-$tool"
done
export PATH=$work/tools:$PATH

aptGet() {
    APT_CONFIG=$work/apt/apt.conf apt-get -qq "$@" >>"$log" 2>&1
}

# A version that the archive has replaced meanwhile gives way to its successor.
fetch() {
    (cd "$work" &&
        { aptGet source --download-only "$1" || aptGet source --download-only "${1%%=*}"; } &&
        dpkg-source --no-check -x "${1%%=*}"_*.dsc "${1%%=*}" >>"$log" 2>&1)
}

withCMake() {
    local name=$1 folder=$2
    shift 2
    { cmake -S "$folder" -B "$work/$name-build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DKY_WINDOWS_PREFIX="$prefix" -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_POLICY_DEFAULT_CMP0091=NEW "$@" &&
        cmake --build "$work/$name-build" --parallel "$(nproc)" --target install; } >>"$log" 2>&1
}

build_onetbb() {
    withCMake onetbb "$work/onetbb" -DTBB_TEST=OFF -DTBBMALLOC_BUILD=OFF -DTBB_STRICT=OFF
}

# Qt's Core module alone, without the parts of it that nothing here uses. The programs that it takes
# to build it are the building machine's, of the same version; they are what Qt's own script would
# build first.
build_qtbase-opensource-src() {
    local source=$work/qtbase-opensource-src tools=/usr/lib/qt5/bin feature options=()
    for feature in animation big_codecs codecs commandlineparser concurrent easingcurve \
        filesystemwatcher gestures hijricalendar itemmodel jalalicalendar mimetype network \
        regularexpression sql statemachine testlib timezone topleveldomain translation xml \
        xmlstream; do
        options+=(-no-feature-$feature)
    done
    mkdir -p "$work/qt-build/bin" "$work/qt-build/src/winmain"
    cat >"$work/qt-build/bin/qt.conf" <<CONF
[EffectivePaths]
Prefix=..
[Paths]
TargetSpec=dummy
HostSpec=linux-g++
[EffectiveSourcePaths]
Prefix=$source
CONF
    # Most of the time would go into reading Windows' headers again and again.
    cat >"$work/qt-build/precompiled.h" <<'HEADER'
#ifdef __cplusplus
#define _CRT_RAND_S
#include <winsock2.h>
#include <qt_windows.h>
#include <shlobj.h>
#include <intshcut.h>
#undef interface
#include "global/qt_pch.h"
#include <algorithm>
#include <qdatetime.h>
#include <qdebug.h>
#include <qdir.h>
#include <qtemporaryfile.h>
#include <private/qcoreapplication_p.h>
#include <private/qfilesystemengine_p.h>
#include <private/qthread_p.h>
#endif
HEADER
    (cd "$work/qt-build" &&
        MAKE=make $tools/qmake -qtconf "$PWD/bin/qt.conf" "$source" -- \
            -opensource -confirm-license -release -optimize-size -shared -xplatform win32-g++ \
            -device-option CROSS_COMPILE=x86_64-w64-mingw32- \
            -prefix "$prefix" -hostprefix "$prefix/host" \
            -external-hostbindir $tools -hostbindir $tools -nomake examples -nomake tests \
            -no-gui -no-widgets -no-dbus -no-opengl -no-openssl \
            -no-pcre -no-icu -no-glib -no-zstd -qt-zlib "${options[@]}" &&
        $tools/qmake -qtconf "$PWD/bin/qt.conf" -o src/corelib/ "$source/src/corelib/corelib.pro" \
            -after PRECOMPILED_HEADER="$PWD/precompiled.h" &&
        make -C src/corelib -j "$(nproc)" install &&
        $tools/qmake -qtconf "$PWD/bin/qt.conf" -o src/winmain/ "$source/src/winmain/winmain.pro" &&
        make -C src/winmain install &&
        make install_mkspecs) >>"$log" 2>&1
}

build_libsodium() {
    (cd "$work/libsodium" &&
        autoreconf -fi &&
        ./configure --host=x86_64-w64-mingw32 --prefix="$prefix" --disable-static &&
        make -j "$(nproc)" install) >>"$log" 2>&1
}

build_lz4() {
    withCMake lz4 "$work/lz4/build/cmake" -DLZ4_BUILD_CLI=OFF -DLZ4_BUILD_LEGACY_LZ4C=OFF
}

build_libzstd() {
    withCMake libzstd "$work/libzstd/build/cmake" -DZSTD_BUILD_PROGRAMS=OFF -DZSTD_BUILD_STATIC=OFF
}

build_googletest() {
    withCMake googletest /usr/src/googletest
}

buildEach() {
    local name log
    for name; do
        echo "Building $name for Windows"
        log=$work/$name.log
        "build_$name"
    done
}

aptGet update
for source in $sources; do
    fetch "$source"
done

# Each has stretches for one processor alone; the first takes about as long as all others together.
# In process groups of their own, so that all of them end with this script.
set -m
buildEach qtbase-opensource-src &
qt=$!
buildEach onetbb libsodium libzstd lz4 googletest &
others=$!
set +m
trap 'kill -- -$qt -$others 2>/dev/null || true' EXIT
failed=0
wait $qt || failed=1
wait $others || failed=1
trap - EXIT
[ $failed = 0 ] || exit 1

# Headers alone: the building machine's are Windows' too.
mkdir -p "$prefix/include" "$prefix/lib/cmake"
for package in libcli11-dev nlohmann-json3-dev; do
    dpkg -L "$package" | while read -r file; do
        [ ! -f "$file" ] || case $file in
        /usr/include/*) install -D -m 644 "$file" "$prefix/${file#/usr/}" ;;
        /usr/share/cmake/* | /usr/lib/cmake/* | /usr/lib/*/cmake/*) install -D -m 644 "$file" "$prefix/lib/cmake/${file#*/cmake/}" ;;
        esac
    done
done

rm -rf "$work"
touch "$prefix/complete"
