#!/usr/bin/env bash
# Compares the binary interface of the library as the sources build it now
# with the committed baseline of its SONAME (abi/Comm_Module.so.<major>.dump),
# using abi-dumper and abi-compliance-checker. Exits 0 when an application
# built against the baseline runs unchanged with the new library, 1 when it
# would not (the report names every break), 2 on a usage or tool error.
#   scripts/abi-check.sh            check against the baseline
#   scripts/abi-check.sh --update   write the baseline for the current SONAME
# An incompatible change needs a new SONAME: raise the major version in the
# top CMakeLists.txt, then write the new SONAME's baseline with --update.
# --update refuses to replace an existing baseline with an incompatible one.
set -euo pipefail
cd "$(dirname "$0")/.."

update=
case "${1:-}" in
    "") ;;
    --update) update=yes ;;
    *) echo "usage: scripts/abi-check.sh [--update]" >&2; exit 2 ;;
esac

scripts/install-deps.sh
# The library alone, with the debug information abi-dumper reads.
build=build/abi
cmake --preset abi >/dev/null
cmake --build --preset abi --target Comm_Module >/dev/null

library=$(find "$build/src" -maxdepth 1 -name 'libComm_Module.so.*.*.*' -type f | head -n 1)
if [ -z "$library" ]; then
    echo "abi-check: no libComm_Module.so.X.Y.Z in $build/src" >&2
    exit 2
fi
version=${library##*/libComm_Module.so.}
major=${version%%.*}
soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')
if [ "$soname" != "libComm_Module.so.$major" ]; then
    echo "abi-check: $library has SONAME '$soname', expected libComm_Module.so.$major" >&2
    exit 2
fi

# Only what the installed headers declare is the interface. The build tree
# keeps them as links, which abi-dumper does not follow: it reads copies.
headers="$build/public-headers"
rm -rf "$headers"
mkdir -p "$headers"
cp -L "$build"/include/comm_module/*.h "$headers"/
current="$build/Comm_Module-$version.dump"
abi-dumper "$library" -o "$current" -lver "$version" -public-headers "$headers" -quiet >/dev/null
baseline="abi/Comm_Module.so.$major.dump"

# abi-compliance-checker, then the virtual tables slot by slot: the checker
# misses a virtual function the library does not export (one defined in a
# header), which moves the slots after it all the same.
compare() {
    abi-compliance-checker -l Comm_Module -binary -old "$1" -new "$2" \
        -report-path "$build/compat_report.html" -quiet >"$build/compare.log" 2>&1 || return $?
    /usr/bin/python3 scripts/abi-vtables.py "$1" "$2" >>"$build/compare.log" 2>&1
}

if [ -n "$update" ]; then
    if [ -f "$baseline" ] && ! compare "$baseline" "$current"; then
        echo "abi-check: the library is not compatible with $baseline; raise the major version (a new SONAME) instead of replacing its baseline" >&2
        echo "report: $build/compat_report.html" >&2
        exit 1
    fi
    cp "$current" "$baseline"
    echo "abi-check: wrote $baseline (libComm_Module $version)"
    exit 0
fi

if [ ! -f "$baseline" ]; then
    echo "abi-check: no baseline for $soname ($baseline): a new SONAME needs one, written by scripts/abi-check.sh --update" >&2
    exit 1
fi
status=0
compare "$baseline" "$current" || status=$?
case "$status" in
    0) echo "abi-check: libComm_Module $version is compatible with $baseline" ;;
    1) echo "abi-check: libComm_Module $version breaks the binary interface of $baseline (report: $build/compat_report.html):" >&2
       grep -iE 'problem|incompatib|verdict|abi-vtables' "$build/compare.log" >&2 || true
       echo "An incompatible change needs a new SONAME: raise the major version, then scripts/abi-check.sh --update." >&2 ;;
    *) cat "$build/compare.log" >&2
       echo "abi-check: abi-compliance-checker failed ($status)" >&2
       status=2 ;;
esac
exit "$status"
