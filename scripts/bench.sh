#!/usr/bin/env bash
# Builds the project and runs every benchmark, then prints one table with each
# figure beside its baseline from the same run, and writes it as JSON to
# build/bench-results/results.json (build/bench-results-qt6 on Qt 6).
#   scripts/bench.sh          the Qt 5 build
#   scripts/bench.sh qt6      the Qt 6 build
# The memory figures run a second time in the AddressSanitizer build, where
# LeakSanitizer counts what is left unreleased; that build sends a quarter of
# the replies (the same mix), so that the run fits its deadline.
#   /usr/bin/python3 bench/report.py --compare build/bench-results build/bench-results-qt6
# sets the two runs' ratios side by side.
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-default}"
case "$preset" in
    default) asan_preset=asan; out=build/bench-results ;;
    qt6) asan_preset=qt6-asan; out=build/bench-results-qt6 ;;
    *) echo "usage: scripts/bench.sh [default|qt6]" >&2; exit 2 ;;
esac

# Build output goes to stderr, so that standard output is the table alone.
scripts/install-deps.sh >&2
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" >&2

rm -rf "$out"
mkdir -p "$out"
status=0
for program in build/$preset/bench/bench_*; do
    [ -f "$program" ] && [ -x "$program" ] || continue
    name=$(basename "$program")
    echo "== $name" >&2
    "$program" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true --benchmark_out="$out/$name.json" \
        --benchmark_out_format=json >&2
done
for program in build/$preset/bench/e2e_*; do
    [ -f "$program" ] && [ -x "$program" ] || continue
    name=$(basename "$program")
    echo "== $name" >&2
    if [ "$name" = e2e_realhid ]; then
        # The USB link on the system's hidapi, against a device umockdev
        # emulates: the program needs umockdev's library preloaded.
        if ! command -v umockdev-wrapper >/dev/null; then
            echo "skipped: umockdev-wrapper not found (Debian package umockdev; scripts/install-deps.sh)" >&2
            continue
        fi
        umockdev-wrapper "$program" --out "$out/$name.json" >&2 || status=1
        continue
    fi
    "$program" --out "$out/$name.json" >&2 || status=1
done

cmake --preset "$asan_preset" >/dev/null
cmake --build --preset "$asan_preset" --target e2e_comm >&2
echo "== e2e_comm ($asan_preset build: leak check)" >&2
ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp" \
    build/$asan_preset/bench/e2e_comm --sections memory-replies,memory-switches --out "$out/e2e_comm_asan.json" >&2 || status=1

echo "Machine: $(nproc) processors, load average $(cut -d' ' -f1-3 /proc/loadavg) at the end of the run"
/usr/bin/python3 bench/report.py "$out"
exit $status
