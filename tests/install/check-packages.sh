#!/usr/bin/env bash
# Installs the Debian packages that scripts/package.sh built, then checks them
# where users meet them: a consumer of each library builds and runs against
# the system's paths (find_package and pkg-config, no prefix given, no
# LD_LIBRARY_PATH), the installed commctl runs its demo, and man finds its
# page. The packages are removed again at the end, also when a check fails.
#   check-packages.sh [PACKAGE_DIR]    (default: build/packages)
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
package_dir=${1:-$source_dir/build/packages}

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi

debs=()
names=()
for deb in "$package_dir"/*.deb; do
    case "$deb" in *-dbgsym_*) continue ;; esac
    debs+=("$deb")
    names+=("$(dpkg-deb -f "$deb" Package)")
done
if [ ${#debs[@]} -eq 0 ]; then
    echo "no packages in $package_dir: run scripts/package.sh first" >&2
    exit 1
fi
for name in "${names[@]}"; do
    if dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q 'install ok installed'; then
        echo "$name is installed already; remove it first (dpkg --purge $name)" >&2
        exit 1
    fi
done

scratch=$(mktemp -d)
cleanup() {
    echo "== removing ${names[*]}"
    $sudo dpkg --purge "${names[@]}" >/dev/null || echo "could not remove the packages" >&2
    rm -rf "$scratch"
}
trap cleanup EXIT

echo "== installing ${names[*]}"
$sudo dpkg -i "${debs[@]}" >"$scratch/dpkg.log" 2>&1 || {
    cat "$scratch/dpkg.log" >&2
    exit 1
}

unset LD_LIBRARY_PATH
for package in CommModule CommModuleQt6; do
    echo "== find_package($package) from the system's paths"
    cmake -S "$source_dir/tests/install/consumer" -B "$scratch/cmake-$package" -G Ninja \
        -DCOMM_PACKAGE="$package" >"$scratch/cmake-$package.log" 2>&1 || {
        cat "$scratch/cmake-$package.log" >&2
        exit 1
    }
    # Found in the system's library folder, not in some tree of ours.
    grep "^${package}_DIR:PATH=/usr/lib/" "$scratch/cmake-$package/CMakeCache.txt"
    cmake --build "$scratch/cmake-$package" >/dev/null
    "$scratch/cmake-$package/consumer"

    echo "== pkg-config $package from the system's paths"
    # shellcheck disable=SC2046
    g++ -std=c++17 -fPIC "$source_dir/tests/install/consumer/main.cpp" -o "$scratch/pkgconfig-$package" \
        $(pkg-config --cflags --libs "$package")
    "$scratch/pkgconfig-$package"
done

echo "== the installed commctl demo"
if ! (cd "$scratch" && timeout 120 /usr/bin/commctl demo >"$scratch/demo.out" 2>&1); then
    tail -n 20 "$scratch/demo.out" >&2
    echo "installed commctl demo failed" >&2
    exit 1
fi
grep -i 'link' "$scratch/demo.out" | head -n 5 || true
echo "commctl demo: exit 0"
# The USB leg, on a HID device umockdev emulates, through the system's hidapi.
if command -v umockdev-wrapper >/dev/null; then
    if ! (cd "$scratch" && timeout 120 umockdev-wrapper /usr/bin/commctl demo >"$scratch/demo-usb.out" 2>&1); then
        tail -n 20 "$scratch/demo-usb.out" >&2
        echo "installed commctl demo under umockdev-wrapper failed" >&2
        exit 1
    fi
    grep '^== USB link' "$scratch/demo-usb.out"
fi

echo "== man commctl"
page=$(man -w commctl)
echo "$page"
MANWIDTH=80 man commctl 2>/dev/null | head -n 5
[ -f /usr/share/comm_module/wireshark/libcomm.lua ]
case " ${names[*]} " in
    *" libcomm-module-doc "*)
        [ -f /usr/share/doc/libcomm-module-doc/html/index.html ]
        echo "API reference: /usr/share/doc/libcomm-module-doc/html/index.html" ;;
esac
echo "packages checked"
