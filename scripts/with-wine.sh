#!/usr/bin/env bash
# Runs a command with Wine at hand: in a prefix of the build's own, which leaves the user's as it is,
# with one server for all programs instead of one that starts and ends with each.
# Usage: scripts/with-wine.sh COMMAND [ARGUMENTS ...]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

export WINEPREFIX=$root/build/windows-wine WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
# Debian's packages put the 64-bit program there, if nowhere else.
export PATH=$PATH:/usr/lib/wine
mkdir -p "$WINEPREFIX"
# What the server starts for itself must not hold this script's output open.
wineserver --persistent >/dev/null 2>&1
trap 'wineserver --kill' EXIT
wineboot --update </dev/null >/dev/null 2>&1
"$@"
