#!/usr/bin/env bash
# Packs what a Windows machine needs into build/kyNetBase-windows.zip: the programs, the library, its
# import library and headers, and every DLL that these need. Then unpacks it into an empty folder and
# runs the programs there, where nothing else of this machine is found.
# Usage: scripts/with-wine.sh scripts/windows-package.sh
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=$PWD/build/windows
package=$PWD/build/kyNetBase-windows
rm -rf "$package" "$package.zip" "$package.test"
cmake --install "$build" --prefix "$package" --strip >/dev/null
rm -r "$package"/lib/cmake "$package"/lib/pkgconfig

importsOf() {
    x86_64-w64-mingw32-objdump --private-headers "$1" | sed -n 's/^\tDLL Name: //p'
}
# What stands in the build's folder of programs and is not Windows' own; without what only a debugger
# reads, as the programs are installed.
addImportsOf() {
    local library
    for library in $(importsOf "$1"); do
        if [ -e "$build/bin/$library" ] && [ ! -e "$package/bin/$library" ]; then
            x86_64-w64-mingw32-strip -o "$package/bin/$library" "$build/bin/$library"
            addImportsOf "$package/bin/$library"
        fi
    done
}
for program in "$package"/bin/*; do
    addImportsOf "$program"
done
(cd "$package" && cmake -E tar cf "$package.zip" --format=zip .)

fail() {
    echo "The package is not right: $1" >&2
    exit 1
}
mkdir "$package.test"
cd "$package.test"
cmake -E tar xf "$package.zip"
for file in bin/TALOCluster{Service,Control,Server}.exe bin/kyNetBase.dll lib/libkyNetBase.dll.a \
    include/kyNetBase/NetBase/serialization/kyNetStream.h; do
    [ -s "$file" ] || fail "there is no $file"
done
# Each import is here or Windows' own, and each DLL here is imported or the library.
imported=kyNetBase.dll
for file in bin/*; do
    for library in $(importsOf "$file"); do
        imported+=" $library"
        [ -e "bin/$library" ] || [ -e "$WINEPREFIX/drive_c/windows/system32/${library,,}" ] ||
            fail "$file needs $library"
    done
done
for library in bin/*.dll; do
    [[ " $imported " == *" ${library#bin/} "* ]] || fail "nothing needs $library"
done
# Paths of this machine would be found in none of the environment's variables, nor beside a program.
inPackage() {
    (cd bin && WINEPATH='' wine64 "$1" "${@:2}" </dev/null 2>&1 | tr -d '\r')
}
version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' ../../CMakeLists.txt)
for program in TALOClusterService.exe TALOClusterControl.exe; do
    [ "$(inPackage "$program" --version)" = "$version" ] || fail "$program does not tell its version"
    [[ $(inPackage "$program" --help) == *--help* ]] || fail "$program does not help"
done
# It is started by a service only, and says so.
[[ $(inPackage TALOClusterServer.exe || true) == *"No socket pipe"* ]] ||
    fail "TALOClusterServer.exe does not start"
cd ..
rm -r "$package.test"
echo "The package is in build/${package##*/}.zip: $(du -h "$package.zip" | cut -f1)"
