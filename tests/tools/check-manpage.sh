#!/usr/bin/env bash
# commctl's manual page (tools/commctl/commctl.1) is written by hand, so it
# drifts from the program unless something compares them. This checks that:
#   - every long option and every command word `commctl --help` prints has an
#     entry in the page, and the options are in its SYNOPSIS;
#   - every option string the sources accept (the "--name" and "-x" literals
#     the parser and main() compare arguments with) has an entry too, so an
#     option added to the parser but left out of the usage text is caught;
#   - every literal exit status main() returns has an entry in EXIT STATUS;
#   - the page has its sections, writes option dashes as \-, and renders
#     without a groff warning.
#   check-manpage.sh COMMCTL PAGE SOURCE...
# An "entry" is the tag line of a .TP paragraph; options are looked for in
# their roff form (--device-type as \-\-device\-type).
set -euo pipefail
if [ $# -lt 3 ]; then
    echo "usage: check-manpage.sh COMMCTL PAGE SOURCE..." >&2
    exit 2
fi
commctl=$1
page=$2
shift 2
sources=("$@")
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# Texts are searched in files, not through pipes: under pipefail, a grep -q
# that stops at its first match would fail the writer of a pipe with SIGPIPE.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# --- what the program says about itself
help_out=$work/help
status=0
timeout 30 "$commctl" --help >"$help_out" 2>&1 || status=$?
if [ "$status" -ne 0 ] || [ "$(head -n 1 "$help_out")" != "usage:" ]; then
    echo "FAIL: '$commctl --help' exited $status, expected 0 and the usage text:" >&2
    cat "$help_out" >&2
    exit 1
fi
help_options=$(grep -oE -- '--[a-z][a-z0-9-]*' "$help_out" | sort -u)
help_commands=$(sed -nE 's/^ +commctl +([a-z]+).*/\1/p' "$help_out" | sort -u)
# The parser's option and command strings: whole string literals only, not
# the messages that quote options inside longer text.
source_options=$(cat "${sources[@]}" | grep -oE -- '"--?[A-Za-z][A-Za-z0-9-]*"' | tr -d '"' | sort -u)
source_commands=$(cat "${sources[@]}" | sed -nE 's/.*command == QLatin1String\("([a-z]+)"\).*/\1/p' | sort -u)
exit_codes=$(cat "${sources[@]}" | grep -oE '\breturn [0-9]+;' | grep -oE '[0-9]+' | sort -u)
for list in help_options help_commands source_options source_commands; do
    if [ -z "${!list}" ]; then
        fail "found no $list: has the usage text or the parser changed shape?"
    fi
done

# --- the page
# Text lines, without comment lines.
body=$work/body
grep -vE '^\.\\"' "$page" >"$body"
# The tag line of every .TP paragraph, and the tags and text of one section.
tags=$work/tags
awk 'prev == ".TP" { print } { prev = $0 }' "$body" >"$tags"
section_tags() {
    awk -v want="$1" '
        /^\.SH / { name = $0; sub(/^\.SH +/, "", name); gsub(/"/, "", name); inside = (name == want) }
        inside && prev == ".TP" { print }
        { prev = $0 }' "$body"
}
section_text() {
    awk -v want="$1" '
        /^\.SH / { name = $0; sub(/^\.SH +/, "", name); gsub(/"/, "", name); inside = (name == want); next }
        inside { print }' "$body"
}
roff() { printf '%s' "$1" | sed 's/-/\\-/g'; }
# True when the roff form of option $1 stands as a whole word in file $2: not
# followed by a letter, digit or \- (\-\-data is not \-\-data\-bits).
has_option() {
    grep -qE -- "$(roff "$1" | sed 's/\\/\\\\/g')"'([^A-Za-z0-9\\]|\\[^-]|$)' "$2"
}

for section in NAME SYNOPSIS DESCRIPTION COMMANDS LINKS OPTIONS OUTPUT "EXIT STATUS" EXAMPLES FILES "SEE ALSO"; do
    grep -qE "^\.SH +\"?$section\"?$" "$body" || fail "the page has no section $section"
done

synopsis=$work/synopsis
section_text SYNOPSIS >"$synopsis"
for option in $help_options; do
    has_option "$option" "$tags" || fail "$option (in commctl --help) has no entry in the page"
    has_option "$option" "$synopsis" || fail "$option (in commctl --help) is not in the SYNOPSIS"
done
for option in $source_options; do
    has_option "$option" "$tags" || fail "$option (accepted by the parser) has no entry in the page"
done

command_tags=$work/command-tags
section_tags COMMANDS >"$command_tags"
for command in $(printf '%s\n' $help_commands $source_commands | sort -u); do
    grep -qx "\.B $command" "$command_tags" || fail "command $command has no entry in COMMANDS"
    grep -qx "\.B $command" "$synopsis" || fail "command $command is not in the SYNOPSIS"
done

exit_tags=$work/exit-tags
section_tags "EXIT STATUS" >"$exit_tags"
for code in $exit_codes; do
    grep -qx "\.B $code" "$exit_tags" || fail "exit status $code has no entry in EXIT STATUS"
done

# An option written with plain hyphens renders as hyphens (not minus signs)
# and cannot be searched for or pasted.
plain=$(grep -nE -- '(^|[^\\])--[A-Za-z]' "$page" | grep -vE '^[0-9]+:\.\\"' || true)
if [ -n "$plain" ]; then
    fail "options written with - instead of \\-:"
    printf '%s\n' "$plain" >&2
fi

if ! command -v groff >/dev/null; then
    fail "groff is not installed (Debian groff-base: scripts/install-deps.sh), the page cannot be rendered"
else
    warnings=$(groff -ww -z -man "$page" 2>&1) || fail "groff -ww -z -man failed"
    if [ -n "$warnings" ]; then
        fail "groff -ww -z -man warns:"
        printf '%s\n' "$warnings" >&2
    fi
fi

if [ "$failures" -ne 0 ]; then
    echo "$page: $failures problem(s)" >&2
    exit 1
fi
echo "$page: $(printf '%s\n' $help_options $source_options | sort -u | wc -l) options," \
     "$(printf '%s\n' $help_commands $source_commands | sort -u | wc -l) commands and exit statuses" \
     "$(echo $exit_codes | tr ' ' ,) documented; renders without warnings"
