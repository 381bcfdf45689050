#!/usr/bin/env bash
# Installs what the build needs, builds commctl and runs its demo: the library
# against simulated devices, no hardware needed.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target commctl
exec build/default/tools/commctl demo
