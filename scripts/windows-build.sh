#!/usr/bin/env bash
# Builds the library, its programs and its tests for Windows, after the libraries that they need.
# Usage: scripts/windows-build.sh
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/windows-prefix.sh
cmake --preset windows >/dev/null
cmake --build --preset windows --parallel "$(nproc)"
