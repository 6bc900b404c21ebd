#!/usr/bin/env bash
# Runs the demo and checks its picture: its size, that it is not blank, and that one server alone
# renders the same picture, pixel for pixel.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-dependencies.sh imagemagick

./scripts/demo.sh
picture=build/demo/render.png

size=$(identify -format '%wx%h' "$picture")
[ "$size" = 960x720 ] || { echo "$picture is $size, not 960x720" >&2; exit 1; }
colours=$(identify -format '%k' "$picture")
[ "$colours" -gt 1000 ] || { echo "$picture shows $colours colours only" >&2; exit 1; }

cp "$picture" build/demo/four-servers.png
./scripts/demo.sh 1
differing=$(compare -metric AE "$picture" build/demo/four-servers.png null: 2>&1) || true
[ "$differing" = 0 ] || { echo "One server renders $differing pixels differently" >&2; exit 1; }
echo "The picture is $size, has $colours colours and does not depend on the number of servers"
