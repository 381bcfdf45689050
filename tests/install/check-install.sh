#!/usr/bin/env bash
# Installs the built project into a scratch prefix and checks that the tree
# stands on its own: no installed file keeps a run path into the build tree,
# the installed commctl runs from there without LD_LIBRARY_PATH (when the build
# has it), and a small consumer program builds and runs against the tree, once
# through find_package(PACKAGE), once through pkg-config.
#   check-install.sh BUILD_DIR SOURCE_DIR SCRATCH_DIR [--with-commctl] [--package PACKAGE]
# PACKAGE is CommModule (the default, the Qt 5 build) or CommModuleQt6. With
# --installed, SCRATCH_DIR/prefix already holds the tree and is checked as it is.
set -euo pipefail
build_dir=$1
source_dir=$2
scratch=$3
shift 3
with_commctl=
package=CommModule
installed=
while [ $# -gt 0 ]; do
    case "$1" in
        --with-commctl) with_commctl=yes ;;
        --package) package=$2; shift ;;
        --installed) installed=yes ;;
        *) echo "check-install.sh: unknown option $1" >&2; exit 2 ;;
    esac
    shift
done
library=Comm_Module${package#CommModule}

prefix="$scratch/prefix"
if [ -z "$installed" ]; then
    rm -rf "$scratch"
    mkdir -p "$scratch"
    cmake --install "$build_dir" --prefix "$prefix" >/dev/null
fi

echo "== run paths of the installed files"
run_paths() {
    readelf -d "$1" | sed -n 's/.*(\(RPATH\|RUNPATH\)).*\[\(.*\)\]$/\2/p'
}
libdir=$(dirname "$(find "$prefix" -name "lib$library.so.*" | head -n 1)")
libdir=${libdir#"$prefix/"}
# The companion stand-in is in a folder of its own, not in the library folder.
companion=Module${package#CommModule}
companiondir=$(dirname "$(find "$prefix" -name "lib$companion.so.*" | head -n 1)")
companiondir=${companiondir#"$prefix/"}
if [ "$companiondir" != "$libdir/comm_module" ]; then
    echo "lib$companion installed in '$companiondir', expected '$libdir/comm_module'" >&2
    exit 1
fi
build_real=$(cd "$build_dir" && pwd -P)
status=0
while IFS= read -r file; do
    readelf -h "$file" >/dev/null 2>&1 || continue # not an ELF file
    paths=$(run_paths "$file")
    case "$paths" in
        *"$build_dir"* | *"$build_real"*)
            echo "$file: run path into the build tree: $paths" >&2
            status=1 ;;
    esac
done < <(find "$prefix" -type f)
library_paths=$(run_paths "$(find "$prefix" -name "lib$library.so.*" -type f | head -n 1)")
if [ "$library_paths" != "\$ORIGIN/comm_module" ]; then
    echo "lib$library: run path '$library_paths', expected '\$ORIGIN/comm_module'" >&2
    status=1
fi
if [ -n "$with_commctl" ]; then
    commctl_paths=$(run_paths "$prefix/bin/commctl")
    expected="\$ORIGIN/../$(dirname "$companiondir"):\$ORIGIN/../$companiondir"
    if [ "$commctl_paths" != "$expected" ]; then
        echo "bin/commctl: run path '$commctl_paths', expected '$expected'" >&2
        status=1
    fi
fi
[ $status -eq 0 ] || exit 1

echo "== installed headers"
# The application's interface and nothing else; the companion's headers have
# a folder of their own.
include_dir="$prefix/include/comm_module$(tr '[:upper:]' '[:lower:]' <<<"${package#CommModule}" | sed 's/^./_&/')"
headers=$(cd "$include_dir" && find . -type f -printf '%P\n' | sort | paste -sd' ')
expected_headers="CommModuleVersion.h PortBase.h PortInterface.h PortSerial.h PortUDP.h PortUSB.h PortWireObserver.h comm_module_export.h"
if [ "$headers" != "$expected_headers" ]; then
    echo "$include_dir holds: $headers; expected: $expected_headers" >&2
    exit 1
fi
companion_headers=$(cd "${include_dir}_companion" && find . -type f -printf '%P\n' | sort | paste -sd' ')
if [ "$companion_headers" != "CmdDealModule.h ModulelEnum.h ProtocolData.h" ]; then
    echo "${include_dir}_companion holds: $companion_headers" >&2
    exit 1
fi
echo "$headers"

if [ -n "$with_commctl" ]; then
    echo "== installed commctl, without LD_LIBRARY_PATH"
    if ! (cd "$scratch" && env -u LD_LIBRARY_PATH timeout 120 "$prefix/bin/commctl" demo >"$scratch/demo.out" 2>&1); then
        tail -n 20 "$scratch/demo.out" >&2
        echo "installed commctl demo failed" >&2
        exit 1
    fi
    echo "commctl demo: exit 0"
fi

export LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/$(gcc -dumpmachine):${LD_LIBRARY_PATH:-}"

echo "== find_package($package)"
rm -rf "$scratch/cmake-build-$package"
cmake -S "$source_dir/tests/install/consumer" -B "$scratch/cmake-build-$package" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DCOMM_PACKAGE="$package" >/dev/null
cmake --build "$scratch/cmake-build-$package" >/dev/null
"$scratch/cmake-build-$package/consumer"

echo "== pkg-config $package"
pcdir=$(dirname "$(find "$prefix" -name "$package.pc" | head -n 1)")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs "$package")
# shellcheck disable=SC2086
g++ -std=c++17 -fPIC "$source_dir/tests/install/consumer/main.cpp" -o "$scratch/pkgconfig-consumer-$package" $flags
"$scratch/pkgconfig-consumer-$package"
