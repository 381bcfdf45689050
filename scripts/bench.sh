#!/usr/bin/env bash
# Builds the project and runs every benchmark, then prints one table with each
# figure beside its baseline from the same run, and writes it as JSON to
# build/bench-results/results.json.
#   scripts/bench.sh
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default

out=build/bench-results
rm -rf "$out"
mkdir -p "$out"
for program in build/default/bench/bench_*; do
    [ -f "$program" ] && [ -x "$program" ] || continue
    name=$(basename "$program")
    echo "== $name" >&2
    "$program" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true --benchmark_out="$out/$name.json" \
        --benchmark_out_format=json >&2
done
for program in build/default/bench/e2e_*; do
    [ -f "$program" ] && [ -x "$program" ] || continue
    name=$(basename "$program")
    echo "== $name" >&2
    "$program" --out "$out/$name.json" >&2
done
python3 bench/report.py "$out"
