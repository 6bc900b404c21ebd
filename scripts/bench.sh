#!/usr/bin/env bash
# Measures the library beside plain sockets and the libraries that a user could take instead, and
# prints one table of ratios; docs/performance.md tells how to read it. Installs what it compares
# with. Table, CSV and a plot for each workload go to build/bench/results.
# Usage: scripts/bench.sh [OPTION ...]
#   --quick             shorter runs, without the other libraries: two minutes instead of twelve
#   --check             a quick run that fails, and says what fell, if a ratio is more than 15 %
#                       below benchmarks/baseline.csv
#   --update-baseline   a quick run that writes benchmarks/baseline.csv
#   --update-docs       puts the table and the plots into docs/performance.md
#   --workload NAME     only this one; may be given again. What else follows goes to the program:
#                       build/bench/benchmarks/kyBenchmark --help
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

results=build/bench/results
baseline=benchmarks/baseline.csv
options=(--folder "$results")
updatesDocs=
while [ $# -gt 0 ]; do
    case $1 in
        --check) options+=(--quick --check "$baseline") ;;
        --update-baseline) options+=(--quick --write-baseline "$baseline") ;;
        --update-docs) updatesDocs=1 ;;
        *) options+=("$1") ;;
    esac
    shift
done

scripts/install-dependencies.sh gnuplot-nox libbenchmark-dev libflatbuffers-dev libnng-dev \
    libopenmpi-dev libprotobuf-dev libucx-dev libzmq3-dev openmpi-bin
scripts/build.sh bench kyBenchmarks >/dev/null

# A rendered picture and its scene, to be compressed.
samples=build/bench/benchmarks/samples
if [ ! -s "$samples/geometry" ]; then
    mkdir -p "$samples"
    build/bench/benchmarks/renderSamples "$(scripts/fetch-scene.sh)" "$samples/tiles" \
        "$samples/geometry"
fi

rm -rf "$results"
isDone=1
build/bench/benchmarks/kyBenchmark "${options[@]}" || isDone=
[ -s "$results/table.txt" ] || exit 1
for data in "$results"/*.dat; do
    gnuplot -c benchmarks/plot.gp "$data" "${data%.dat}.svg"
done

# The table stands between two marks of the page, the plots behind it.
if [ -n "$updatesDocs" ]; then
    page=docs/performance.md
    mkdir -p docs/performance
    rm -f docs/performance/*.svg
    cp "$results"/*.svg docs/performance
    {
        sed '/^<!-- results -->$/q' "$page"
        printf '\nMeasured on %s, %s processors, Linux %s.\n\n```' \
            "$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1)" "$(nproc)" "$(uname -r)"
        cat "$results/table.txt"
        printf '```\n\n'
        for plot in docs/performance/*.svg; do
            plot=$(basename "$plot" .svg)
            echo "![$plot](performance/$plot.svg)"
        done
        echo
        sed -n '/^<!-- end of results -->$/,$p' "$page"
    } >"$results/page.md"
    cp "$results/page.md" "$page"
fi
[ -n "$isDone" ]
