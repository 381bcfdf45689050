#!/usr/bin/env bash
# Installs what the build needs, configures, builds and runs every test.
#   scripts/test.sh            plain build
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan       ThreadSanitizer
#   scripts/test.sh qt6        plain build on Qt 6
#   scripts/test.sh qt6-asan   AddressSanitizer + UndefinedBehaviorSanitizer on Qt 6
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-default}"
case "$preset" in
    default|asan|tsan|qt6|qt6-asan) ;;
    *) echo "usage: scripts/test.sh [default|asan|tsan|qt6|qt6-asan]" >&2; exit 2 ;;
esac

scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset"
