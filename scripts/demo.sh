#!/usr/bin/env bash
# From a fresh machine to a picture: builds the programs, starts two cluster services on loopback
# as two nodes, and renders a scanned mesh on four server processes into build/demo/render.png.
# Everything that travels is encrypted with a key that is made for this one time, the servers of a
# node pass the scene on to each other, and the finished tiles come back compressed over four
# channels from each server.
# Usage: scripts/demo.sh [--plain] [NUMBER OF SERVERS]
#   --plain   without key, relay and compression, over one channel
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
isPlain=
if [ "${1:-}" = --plain ]; then
    isPlain=1
    shift
fi
servers=${1:-4}

scripts/build.sh release TALOClusterService TALOClusterServer TALOClusterControl TALORender

programs=$PWD/build/release/bin
demo=$PWD/build/demo
mkdir -p "$demo"

scene=$(scripts/fetch-scene.sh)

# How services and renderer talk to each other.
serviceOptions=()
renderOptions=(--channels "1,1,1" --image-compression none --relay none)
if [ -z "$isPlain" ]; then
    key=$demo/key
    rm -f "$key"
    (umask 077 && od -An -tx1 -N32 /dev/urandom | tr -d ' \n' >"$key")
    serviceOptions=(--key "$key")
    renderOptions=(--key "$key" --channels "1,4,6" --image-compression zstd --relay tree)
fi

# Two services; each says on its first line of output which port it took.
services=()
nodes=()
stopServices() {
    for service in "${services[@]}"; do
        kill "$service" 2>/dev/null || true
    done
    wait
}
trap stopServices EXIT

startService() {
    local log=$demo/service$1.log
    : >"$log"
    "$programs/TALOClusterService" --port 0 "${serviceOptions[@]}" >"$log" 2>&1 &
    services+=($!)
    local port=
    for _ in $(seq 100); do
        port=$(sed -n 's/^listening on port \([0-9]*\)$/\1/p' "$log")
        [ -z "$port" ] || break
        kill -0 "${services[-1]}" || { cat "$log" >&2; exit 1; }
        sleep 0.1
    done
    nodes+=("127.0.0.1:$port")
}

startService 1
startService 2

echo "Rendering $(basename "$scene") on $servers servers of the nodes ${nodes[*]}"
"$programs/TALORender" "$scene" -o "$demo/render.png" \
    --node "${nodes[0]}" --node "${nodes[1]}" --servers "$servers" --size 960x720 --samples 48 \
    "${renderOptions[@]}"

for node in "${nodes[@]}"; do
    "$programs/TALOClusterControl" stop-service --node "$node" "${serviceOptions[@]}" >/dev/null
done
echo "The picture is in build/demo/render.png"
