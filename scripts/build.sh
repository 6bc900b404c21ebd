#!/usr/bin/env bash
# Builds everything, or the targets named, as one of the presets says.
# Usage: scripts/build.sh [PRESET [TARGET ...]]      (release is the default; into build/PRESET)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
shift || true
targets=()
[ $# -eq 0 ] || targets=(--target "$@")

case $preset in
asan | fuzz)
    # A second compiler sees other faults, and builds with these sanitizers in half the time.
    scripts/install-dependencies.sh clang libclang-rt-dev
    ;;
*)
    scripts/install-dependencies.sh
    ;;
esac
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}"
