#!/usr/bin/env bash
# Builds the libraries that the Windows build links, from Debian's source packages: the very sources
# that the Linux build's development packages were made of. Keeps them in build/windows-prefix, or in
# KY_WINDOWS_PREFIX, and builds them again only when one of those versions or the recipe changes.
set -eEuo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-dependencies.sh \
    autoconf automake dpkg-dev g++-mingw-w64-x86-64-posix googletest libtool make xz-utils

prefix=$(realpath -m "${KY_WINDOWS_PREFIX:-build/windows-prefix}")
toolchain=$PWD/cmake/kyWindowsToolchain.cmake
work=$prefix.work
log=$work/log

# The source packages in the order in which they are built, one "name=version" each.
sources=$(dpkg-query -W -f '${source:Package}=${source:Version}\n' \
    libtbb-dev qtbase5-dev libsodium-dev liblz4-dev libzstd-dev)
headers=$(dpkg-query -W -f '${Package}=${Version}\n' googletest libcli11-dev nlohmann-json3-dev)
# To be counted up when something below changes what comes out.
recipe=1
stamp=$(printf '%s\n' "$sources" "$headers" \
    "$(x86_64-w64-mingw32-g++-posix --version | head -1)" "recipe=$recipe")
[ "$(cat "$prefix/stamp" 2>/dev/null)" != "$stamp" ] || exit 0

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

build_qtbase-opensource-src() {
    mkdir "$work/qt-build"
    (cd "$work/qt-build" &&
        MAKEFLAGS=-j$(nproc) ../qtbase-opensource-src/configure \
            -opensource -confirm-license -release -shared -xplatform win32-g++ \
            -device-option CROSS_COMPILE=x86_64-w64-mingw32- \
            -prefix "$prefix" -hostprefix "$prefix/host" \
            -no-gui -no-widgets -no-dbus -no-opengl -no-openssl -nomake examples -nomake tests \
            -qt-pcre -no-icu -no-glib -no-zstd -qt-zlib &&
        bin/qmake -o src/Makefile ../qtbase-opensource-src/src/src.pro &&
        make -C src -j "$(nproc)" sub-corelib sub-winmain sub-rcc &&
        make sub-qmake-qmake-aux-pro-install_subtargets install_mkspecs &&
        make -C src/corelib install && make -C src/winmain install &&
        make -C src/tools/moc install && make -C src/tools/rcc install) >>"$log" 2>&1
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

aptGet update
for source in $sources; do
    echo "Building ${source%%=*} for Windows"
    fetch "$source"
    "build_${source%%=*}"
done

echo "Building googletest for Windows"
withCMake googletest /usr/src/googletest

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
printf '%s\n' "$stamp" >"$prefix/stamp"
