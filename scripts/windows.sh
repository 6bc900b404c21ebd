#!/usr/bin/env bash
# From a fresh machine to the library and its programs for Windows: builds the libraries they need,
# builds everything else, runs the tests under Wine, and packs what a Windows machine needs into
# build/kyNetBase-windows.zip.
# Usage: scripts/windows.sh [CTEST ARGUMENTS ...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

stage() {
    echo "-- $1 (after $SECONDS s)"
}

stage "the libraries"
scripts/install-dependencies.sh wine wine64
scripts/windows-prefix.sh

stage "the library, its programs and its tests"
cmake --preset windows >/dev/null
cmake --build --preset windows --parallel "$(nproc)"

stage "the tests"
export WINEPREFIX=$PWD/build/windows-wine WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
mkdir -p "$WINEPREFIX"
# One server for all programs, instead of one that starts and ends with each. What it starts for
# itself must not hold this script's output open.
wineserver --persistent >/dev/null 2>&1
trap 'wineserver --kill' EXIT
wineboot --update </dev/null >/dev/null 2>&1
# Twice as many as there are processors: a program's start is mostly waiting for the server.
ctest --preset windows --parallel "$((2 * $(nproc)))" "$@"
echo "Not run, as they cannot hold there:"
sed -n 's/^[^#]/    &/p' tests/windowsExceptions.txt

stage "the package"
package=$PWD/build/kyNetBase-windows
rm -rf "$package" "$package.zip"
cmake --install build/windows --prefix "$package" --strip >/dev/null
rm -r "$package"/lib/cmake "$package"/lib/pkgconfig

# Every library that one of these needs goes with them, unless Windows has it.
importsOf() {
    x86_64-w64-mingw32-objdump --private-headers "$1" | sed -n 's/^\tDLL Name: //p'
}
addImportsOf() {
    local library
    for library in $(importsOf "$1"); do
        if [ -e "build/windows/bin/$library" ] && [ ! -e "$package/bin/$library" ]; then
            cp "build/windows/bin/$library" "$package/bin/"
            addImportsOf "$package/bin/$library"
        fi
    done
}
for program in "$package"/bin/*; do
    addImportsOf "$program"
done
(cd "$package" && cmake -E tar cf "$package.zip" --format=zip .)
echo "The package is in ${package#"$PWD/"}.zip: $(du -h "$package.zip" | cut -f1)"
