#!/usr/bin/env bash
# Runs clang-tidy with the checked-in profile over the library, the helpers and the programs.
# Usage: scripts/tidy.sh [FILE ...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-dependencies.sh clang-tidy
cmake --preset release >/dev/null

files=("$@")
if [ ${#files[@]} -eq 0 ]; then
    mapfile -t files < <(git ls-files 'NetBase/*.cpp' 'Utils/*.cpp' 'QtProcess/*.cpp' 'VersionInfo/*.cpp' 'apps/*.cpp' ':!*/platform/win32/*')
fi
# One source each: the analyzer carries names from one source over to the next and errs there.
printf '%s\n' "${files[@]}" | xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build/release
