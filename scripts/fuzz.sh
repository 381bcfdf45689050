#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang and runs each for a bounded time.
#   scripts/fuzz.sh [SECONDS_PER_HARNESS [NAME...]]    (default 30, every harness)
# NAME is a harness's name without "fuzz_", e.g. serial_reassembly.
# Exits 0 with a message when clang's fuzzer runtime cannot be installed.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
shift || true
only=("$@")

if ! scripts/install-deps.sh --fuzz; then
    echo "fuzz: skipped: clang and its fuzzer runtime (clang, libclang-rt-dev) could not be installed"
    exit 0
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

status=0
# One harness fuzz/fuzz_NAME per seed folder fuzz/corpus/NAME.
for seeds in fuzz/corpus/*/; do
    name=$(basename "$seeds")
    if [ ${#only[@]} -gt 0 ] && [[ ! " ${only[*]} " =~ " $name " ]]; then
        continue
    fi
    harness=build/fuzz/fuzz/fuzz_$name
    if [ ! -x "$harness" ]; then
        echo "fuzz: no harness $harness for the seeds in $seeds" >&2
        status=1
        continue
    fi
    corpus=build/fuzz/corpus/$name
    mkdir -p "$corpus"
    # Work on a copy: the seeds in the repository stay as they are.
    cp -n fuzz/corpus/"$name"/* "$corpus"/ 2>/dev/null || true
    echo "== fuzz_$name for ${seconds}s"
    if ! "$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
            -dict=fuzz/frames.dict -artifact_prefix=build/fuzz/"$name"- "$corpus" 2>build/fuzz/"$name".log; then
        tail -n 40 build/fuzz/"$name".log
        status=1
    else
        grep -E '^(stat::number_of_executed_units|Done )' build/fuzz/"$name".log || tail -n 3 build/fuzz/"$name".log
    fi
done
exit $status
