#!/usr/bin/env bash
# Installs what the build needs, builds commctl and runs its demo: the library
# against simulated devices on all three links, no hardware needed. Where
# /dev/uhid cannot be used for a virtual HID device, the demo runs under
# umockdev-wrapper and its USB leg plays a HID device that umockdev emulates.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target commctl
if [ -r /dev/uhid ] && [ -w /dev/uhid ]; then
    exec build/default/tools/commctl demo
fi
exec umockdev-wrapper build/default/tools/commctl demo
