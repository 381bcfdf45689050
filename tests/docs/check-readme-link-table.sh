#!/usr/bin/env bash
# The README's table of links ("The protocol at a glance") names the three
# links in its first column, in order: network, serial, USB. The tables of
# measured figures (docs/performance.md) are updated by hand from run output;
# this keeps such an update from landing in the wrong table.
#   check-readme-link-table.sh README
set -euo pipefail
readme=$1

# First cells of the rows under the header "| Link | ...", up to the table's end.
found=$(awk '
    /^\| Link \|/ { inTable = 1; next }
    inTable && /^\|---/ { next }
    inTable && /^\|/ { split($0, cells, "|"); gsub(/^ +| +$/, "", cells[2]); print cells[2]; next }
    inTable { exit }
' "$readme" | paste -sd, -)

expected="network,serial,USB"
if [ "$found" != "$expected" ]; then
    echo "README link table: first column '$found', expected '$expected'" >&2
    exit 1
fi
echo "README link table: $found"
