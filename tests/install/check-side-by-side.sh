#!/usr/bin/env bash
# Installs the Qt 5 and the Qt 6 build into one prefix and checks that they
# share no file, that each library links only its own Qt, and that a consumer
# of each builds and runs there (find_package and pkg-config).
#   check-side-by-side.sh QT5_BUILD_DIR QT6_BUILD_DIR SOURCE_DIR SCRATCH_DIR
# Exits 77 (skipped) when the Qt 5 build is not there to install.
set -euo pipefail
qt5_build=$1
qt6_build=$2
source_dir=$3
scratch=$4

if [ ! -f "$qt5_build/CMakeCache.txt" ] || [ ! -f "$qt5_build/src/libComm_Module.so" ]; then
    echo "SKIP: no Qt 5 build in $qt5_build to install beside this one (cmake --preset default && cmake --build --preset default)"
    exit 77
fi

rm -rf "$scratch"
mkdir -p "$scratch"
prefix="$scratch/prefix"
installed_files() {
    sed -n 's/^-- \(Installing\|Up-to-date\|Set runtime path of\): //p' "$1" | sed 's/^"\(.*\)"$/\1/' | sort -u
}
cmake --install "$qt5_build" --prefix "$prefix" >"$scratch/qt5.log"
cmake --install "$qt6_build" --prefix "$prefix" >"$scratch/qt6.log"
installed_files "$scratch/qt5.log" >"$scratch/qt5.files"
installed_files "$scratch/qt6.log" >"$scratch/qt6.files"
common=$(comm -12 "$scratch/qt5.files" "$scratch/qt6.files")
if [ -n "$common" ]; then
    echo "files installed by both builds:" >&2
    echo "$common" >&2
    exit 1
fi
echo "== no file in common: $(wc -l <"$scratch/qt5.files") files from Qt 5, $(wc -l <"$scratch/qt6.files") from Qt 6"

export LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/$(gcc -dumpmachine):${LD_LIBRARY_PATH:-}"
status=0
for pair in Comm_Module:Qt6 Module:Qt6 Comm_ModuleQt6:Qt5 ModuleQt6:Qt5; do
    library=${pair%%:*}
    foreign=${pair##*:}
    file=$(find "$prefix" -name "lib$library.so.*" -type f | head -n 1)
    if [ -z "$file" ]; then
        echo "lib$library.so not installed" >&2
        status=1
    elif ldd "$file" | grep -q "lib$foreign"; then
        echo "lib$library links $foreign:" >&2
        ldd "$file" | grep "lib$foreign" >&2
        status=1
    fi
done
[ $status -eq 0 ] || exit 1
echo "== each library links its own Qt only"

"$source_dir/tests/install/check-install.sh" "$qt5_build" "$source_dir" "$scratch" --installed --with-commctl
"$source_dir/tests/install/check-install.sh" "$qt6_build" "$source_dir" "$scratch" --installed --package CommModuleQt6
