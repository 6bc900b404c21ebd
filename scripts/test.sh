#!/usr/bin/env bash
# Builds and runs every test. Installs what is missing, so that it works on a fresh machine.
# Usage: scripts/test.sh [PRESET [CTEST ARGUMENTS ...]]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
shift || true

scripts/build.sh "$preset"
# Many tests wait for a peer, a process or a time limit rather than compute.
ctest --preset "$preset" --parallel "$((2 * $(nproc)))" "$@"
