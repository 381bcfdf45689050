#!/usr/bin/env bash
# Installs the built project into a scratch prefix, then builds and runs a small
# consumer program against that tree: once through find_package(CommModule),
# once through pkg-config.
#   check-install.sh BUILD_DIR SOURCE_DIR SCRATCH_DIR
set -euo pipefail
build_dir=$1
source_dir=$2
scratch=$3

rm -rf "$scratch"
mkdir -p "$scratch"
prefix="$scratch/prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
export LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/$(gcc -dumpmachine):${LD_LIBRARY_PATH:-}"

echo "== find_package(CommModule)"
cmake -S "$source_dir/tests/install/consumer" -B "$scratch/cmake-build" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
"$scratch/cmake-build/consumer"

echo "== pkg-config CommModule"
pcdir=$(dirname "$(find "$prefix" -name CommModule.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs CommModule)
# shellcheck disable=SC2086
g++ -std=c++17 -fPIC "$source_dir/tests/install/consumer/main.cpp" -o "$scratch/pkgconfig-consumer" $flags
"$scratch/pkgconfig-consumer"
