#!/usr/bin/env bash
# Runs comm_soak: every link at once against devices in the same process (a
# network device on loopback, devices on pseudo-terminals, a USB device that
# umockdev emulates), with link switches, deletes from other threads, unplug
# storms, hang-ups, noise and queue clears, for MINUTES minutes. It ends with
# one line "soak: N replies, 0 lost, 0 corrupt, ..." and exits 0 only when
# nothing was lost or corrupted and memory, threads and descriptors stayed
# within their bounds.
#   scripts/soak.sh                 3 minutes, plain build
#   scripts/soak.sh 10 asan         10 minutes under AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/soak.sh 2 tsan          under ThreadSanitizer (without the USB leg)
# Presets: default, asan, tsan, qt6, qt6-asan. Repeat a run with
# SOAK_SEED=<the seed it printed> scripts/soak.sh ...
set -euo pipefail
cd "$(dirname "$0")/.."

minutes="${1:-3}"
preset="${2:-default}"
usage="usage: scripts/soak.sh [MINUTES] [default|asan|tsan|qt6|qt6-asan]"
case "$minutes" in
    ''|*[!0-9]*) echo "$usage" >&2; exit 2 ;;
esac
if [ "$minutes" -lt 1 ] || [ "$minutes" -gt 1440 ]; then
    echo "$usage (MINUTES from 1 to 1440)" >&2
    exit 2
fi
case "$preset" in
    default|asan|tsan|qt6|qt6-asan) ;;
    *) echo "$usage" >&2; exit 2 ;;
esac

scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" --target comm_soak

# How the program runs in this build (environment, umockdev-wrapper or not,
# the memory bounds), as CMake wrote it for tst_soak_smoke too.
# shellcheck source=/dev/null
. "build/$preset/tests/soak/soak-run.sh"

seconds=$((minutes * 60))
# shellcheck disable=SC2206 # SOAK_MEMORY_ARGUMENTS is a list of words
arguments=(--seconds "$seconds" $SOAK_MEMORY_ARGUMENTS)
if [ -n "${SOAK_SEED:-}" ]; then
    arguments+=(--seed "$SOAK_SEED")
fi
# The program stops itself: traffic ends at the time given, the replies still
# awaited get their deadline (60 s), and tearing down is bounded too. The
# margin covers all of that; timeout only ends a run that hangs.
limit=$((seconds + 300))
status=0
# shellcheck disable=SC2086 # SOAK_WRAPPER is a command or nothing
timeout --kill-after=30 "$limit" $SOAK_WRAPPER "$SOAK_PROGRAM" "${arguments[@]}" || status=$?
if [ "$status" -eq 124 ] || [ "$status" -eq 137 ]; then
    echo "soak.sh: comm_soak did not end within $limit seconds: stopped" >&2
fi
exit "$status"
