#!/usr/bin/env bash
# Builds the library, its programs and its tests for Windows, after the libraries that they need.
# Usage: scripts/windows-build.sh
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

prefix=$(scripts/windows-prefix.sh)
# What was found in another folder is forgotten.
fresh=--fresh
! grep -qsxF "KY_WINDOWS_PREFIX:PATH=$prefix" build/windows/CMakeCache.txt || fresh=
cmake --preset windows $fresh -DKY_WINDOWS_PREFIX="$prefix" >/dev/null
cmake --build --preset windows --parallel "$(nproc)"
