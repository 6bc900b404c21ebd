#!/usr/bin/env bash
# Installs with apt what building, testing and the demo need and this machine does not have yet.
# Usage: scripts/install-dependencies.sh [more packages ...]
set -euo pipefail

packages=(
    ca-certificates
    cmake
    g++
    libassimp-dev
    libcli11-dev
    libembree-dev
    libgmock-dev
    libgtest-dev
    liblz4-dev
    libpng-dev
    libsodium-dev
    libtbb-dev
    libzstd-dev
    locales
    ninja-build
    nlohmann-json3-dev
    pkg-config
    qtbase5-dev
    "$@"
)

missing=()
for package in "${packages[@]}"; do
    if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
        missing+=("$package")
    fi
done
[ ${#missing[@]} -gt 0 ] || exit 0

asRoot=()
if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || {
        echo "Please install as root: apt-get install ${missing[*]}" >&2
        exit 1
    }
    asRoot=(sudo)
fi

echo "Installing: ${missing[*]}"
"${asRoot[@]}" apt-get update -qq
"${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
