#!/usr/bin/env bash
# Builds the Debian binary packages from this tree into build/packages/ and
# runs lintian on them: any error, or any warning that is neither fixed nor
# overridden in debian/, fails the script.
#   scripts/package.sh [--nodoc]    (--nodoc: without the API reference)
set -euo pipefail
cd "$(dirname "$0")/.."

# debhelper, lintian, doxygen and the build dependencies in debian/control.
scripts/install-deps.sh

profiles=""
if [ "${1:-}" = "--nodoc" ]; then
    profiles=nodoc
fi

out=build/packages
version=$(dpkg-parsechangelog -l debian/changelog -S Version)
tree="$out/src/comm-module-$version"
rm -rf "$out"
mkdir -p "$tree"

# The tree as it stands, new files included, without what git ignores and
# without build output: dpkg-buildpackage writes its packages beside the tree.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -co --exclude-standard -z | grep -zv '^build/' | tar --null -cf - -T - | tar -xf - -C "$tree"
else
    tar --exclude=./build --exclude=./.git -cf - . | tar -xf - -C "$tree"
fi

echo "== dpkg-buildpackage (log: $out/build.log)"
if ! (cd "$tree" && DEB_BUILD_PROFILES="$profiles" DEB_BUILD_OPTIONS="$profiles" \
        dpkg-buildpackage -b -us -uc -j"$(nproc)") >"$out/build.log" 2>&1; then
    tail -n 40 "$out/build.log" >&2
    echo "package build failed" >&2
    exit 1
fi
mv "$out/src"/*.deb "$out/src"/*.changes "$out/src"/*.buildinfo "$out/"
rm -rf "$out/src"
ls -1 "$out"/*.deb

echo "== lintian"
status=0
lintian --fail-on error,warning -EvIL +pedantic "$out"/*.changes >"$out/lintian.log" 2>&1 || status=$?
grep -v '^N: \|root privileges' "$out/lintian.log" || true
if [ $status -ne 0 ]; then
    echo "lintian: errors, or warnings neither fixed nor overridden (exit $status)" >&2
    exit 1
fi
echo "lintian: no error, no warning left"
