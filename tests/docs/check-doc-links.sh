#!/usr/bin/env bash
# The links of the README and of the pages in docs/ resolve: files that exist,
# headings that exist, every page reachable (check-doc-links.py says what is
# checked). The checker first shows that it catches each kind of broken link.
#   check-doc-links.sh SOURCE_DIR
set -euo pipefail
if [ $# -ne 1 ]; then
    echo "usage: check-doc-links.sh SOURCE_DIR" >&2
    exit 2
fi
checker="$(dirname "$0")/check-doc-links.py"
/usr/bin/python3 "$checker" --self-test
/usr/bin/python3 "$checker" "$1"
