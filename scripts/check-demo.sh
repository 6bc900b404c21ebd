#!/usr/bin/env bash
# Runs the demo and checks its picture: its size, that it is not blank, and that one server alone,
# without key, relay and compression, renders the same picture, pixel for pixel. Checks also that
# the demo's report tells how many bytes travelled.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-dependencies.sh imagemagick
mkdir -p build/demo

./scripts/demo.sh | tee build/demo/report.txt
for total in raw compressed scene; do
    grep -Eq "^$total: +[1-9][0-9]* bytes" build/demo/report.txt ||
        { echo "The demo does not tell the $total bytes" >&2; exit 1; }
done
picture=build/demo/render.png

size=$(identify -format '%wx%h' "$picture")
[ "$size" = 960x720 ] || { echo "$picture is $size, not 960x720" >&2; exit 1; }
colours=$(identify -format '%k' "$picture")
[ "$colours" -gt 1000 ] || { echo "$picture shows $colours colours only" >&2; exit 1; }

cp "$picture" build/demo/four-servers.png
./scripts/demo.sh --plain 1
differing=$(compare -metric AE "$picture" build/demo/four-servers.png null: 2>&1) || true
[ "$differing" = 0 ] || { echo "One server renders $differing pixels differently" >&2; exit 1; }
echo "The picture is $size, has $colours colours and does not depend on how many servers render it"
