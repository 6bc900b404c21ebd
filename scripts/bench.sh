#!/usr/bin/env bash
# Measures the library beside plain sockets and the libraries that a user could take instead, and
# prints one table of ratios; docs/performance.md tells how to read it. Installs what it
# compares with. Table and CSV go to build/bench/results.
# Usage: scripts/bench.sh [OPTION ...]
#   --quick             shorter runs, without the other libraries: two minutes instead of twelve
#   --check             a quick run that fails, and says what fell, if a ratio is more than 15 %
#                       below benchmarks/baseline.csv
#   --update-baseline   a quick run that writes benchmarks/baseline.csv
#   --workload NAME     only this one; may be given again. What else follows goes to the program:
#                       build/bench/benchmarks/kyBenchmark --help
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

results=build/bench/results
baseline=benchmarks/baseline.csv
options=(--folder "$results")
while [ $# -gt 0 ]; do
    case $1 in
        --check) options+=(--quick --check "$baseline") ;;
        --update-baseline) options+=(--quick --write-baseline "$baseline") ;;
        *) options+=("$1") ;;
    esac
    shift
done

scripts/install-dependencies.sh gnuplot-nox libbenchmark-dev libnng-dev libopenmpi-dev \
    libucx-dev libzmq3-dev openmpi-bin
scripts/build.sh bench kyBenchmarks >/dev/null

# A rendered picture and its scene, to be compressed.
samples=build/bench/benchmarks/samples
if [ ! -s "$samples/geometry" ]; then
    mkdir -p "$samples"
    build/bench/benchmarks/renderSamples "$(scripts/fetch-scene.sh)" "$samples/tiles" \
        "$samples/geometry"
fi

rm -rf "$results"
build/bench/benchmarks/kyBenchmark "${options[@]}"
