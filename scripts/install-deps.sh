#!/usr/bin/env bash
# Installs the Debian 12 packages the project builds, tests and benchmarks
# with. Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
    cmake ninja-build g++ pkg-config
    qtbase5-dev libqt5serialport5-dev
    qt6-base-dev qt6-serialport-dev
    libhidapi-dev
    umockdev libumockdev-dev
    libbenchmark-dev python3
    iproute2 util-linux
    tshark
    # The binary interface check (scripts/abi-check.sh).
    abi-dumper abi-compliance-checker
    # dpkg-buildpackage checks for build-essential besides debian/control's list.
    build-essential debhelper dpkg-dev lintian doxygen groff-base man-db
)
# scripts/install-deps.sh --fuzz: clang and its fuzzer runtime as well.
if [ "${1:-}" = "--fuzz" ]; then
    packages+=(clang libclang-rt-dev)
fi

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
# tshark asks whether users other than root may capture: no (and no question).
echo "wireshark-common wireshark-common/install-setuid boolean false" | $sudo debconf-set-selections
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
