#!/usr/bin/env bash
# Builds the API reference, which fails on any Doxygen warning (an
# undocumented member, a parameter without its description, ...), then checks
# that every operation of the public headers says on which threads it runs and
# what it logs.
#   check-api-docs.sh BUILD_DIR XML_DIR
set -euo pipefail
build_dir=$1
xml_dir=$2

if ! cmake --build "$build_dir" --target docs; then
    echo "API reference: the docs target failed (see the warnings above)" >&2
    exit 1
fi
/usr/bin/python3 "$(dirname "$0")/check-api-docs.py" "$xml_dir"
