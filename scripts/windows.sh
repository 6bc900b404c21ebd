#!/usr/bin/env bash
# From a fresh machine to the library and its programs for Windows: builds the libraries they need,
# builds everything else, runs the tests under Wine, those that talk to Linux programs included, and
# packs what a Windows machine needs into build/kyNetBase-windows.zip.
# Usage: scripts/windows.sh [CTEST ARGUMENTS ...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

stage() {
    echo "-- $1 (after $SECONDS s)"
}

stage "the library, its programs and its tests"
scripts/windows-build.sh

stage "the tests"
scripts/install-dependencies.sh wine wine64
# Twice as many as there are processors: a program's start is mostly waiting for Wine's server. That
# server now and then forgets a wait or keeps a dead process's connection, whatever the test: what
# fails is tried once more, and CTest says so. What fails of our own fails twice.
scripts/with-wine.sh ctest --preset windows --parallel "$((2 * $(nproc)))" \
    --repeat until-pass:2 "$@"
echo "Not run, as they cannot hold there:"
sed -n 's/^[^#]/    &/p' tests/windowsExceptions.txt

stage "the tests between Linux and Windows"
scripts/build.sh release
scripts/with-wine.sh scripts/interop.sh --gtest_brief=1

stage "the package"
scripts/with-wine.sh scripts/windows-package.sh
