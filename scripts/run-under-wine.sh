#!/usr/bin/env bash
# Runs a program for Windows: scripts/run-under-wine.sh PROGRAM [ARGUMENTS ...]
#
# What Wine starts for itself meanwhile inherits the program's output and stays. Whoever reads that
# output to its end would wait for it, too: this ends with the program.
set -u

wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
output=$(mktemp)
exec 3>"$output" <"$output"
rm "$output"
"$wine" "$@" >&3 2>&1 3>&- &
tail --pid=$! --follow --lines=+1 --sleep-interval=0.02
wait $!
