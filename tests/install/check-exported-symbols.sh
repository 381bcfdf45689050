#!/usr/bin/env bash
# The shipped library's dynamic symbol table holds the public classes and
# nothing else: their members, vtables, type information and Qt meta-object
# data. Anything more (the comm:: internals above all) would become part of
# the library's binary interface, which applications could start to depend on.
# The public classes (and the few free functions) are those the public headers
# declare with COMM_MODULE_EXPORT.
#   check-exported-symbols.sh LIBRARY PUBLIC_HEADER...
set -euo pipefail
library=$1
shift

classes=$(sed -n 's/^class COMM_MODULE_EXPORT \([A-Za-z_][A-Za-z0-9_]*\).*/\1/p' "$@" | sort -u)
if [ -z "$classes" ]; then
    echo "no class declared with COMM_MODULE_EXPORT in: $*" >&2
    exit 1
fi
class_pattern=$(paste -sd'|' <<<"$classes")
# Free functions the headers declare COMM_MODULE_EXPORT (the run-time version).
functions=$(sed -n 's/^COMM_MODULE_EXPORT [^(]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)(.*/\1/p' "$@" | sort -u)

symbols=$(nm -D --defined-only -C "$library" | sed -E 's/^[0-9a-fA-F]* +[A-Za-z] //')
if [ -z "$symbols" ]; then
    echo "$library: no exported symbols" >&2
    exit 1
fi

# What the public classes bring: members, static data, thunks, vtables, type
# information (C++ ABI), and the run-time linker's own entries. Sanitizer
# builds add the sanitizers' markers of exported globals.
allowed="^(($class_pattern)::"
allowed+="|(non-virtual |virtual )?thunk to ($class_pattern)::"
allowed+="|(vtable|VTT|typeinfo|typeinfo name) for ($class_pattern)\$"
if [ -n "$functions" ]; then
    allowed+="|($(paste -sd'|' <<<"$functions"))\\("
fi
allowed+="|_init\$|_fini\$|_edata\$|_end\$|__bss_start\$"
allowed+="|__odr_asan[._]|__asan_|__ubsan_|__sancov_|__start___sancov|__stop___sancov"
allowed+=")"

internal=$(grep -E '(^|[^A-Za-z0-9_])comm::' <<<"$symbols" || true)
other=$(grep -Ev "$allowed" <<<"$symbols" || true)
if [ -n "$internal" ] || [ -n "$other" ]; then
    echo "$library exports symbols outside the public classes ($(paste -sd' ' <<<"$classes")):" >&2
    sort -u <<<"$internal"$'\n'"$other" | sed '/^$/d' | head -n 50 >&2
    exit 1
fi
echo "$library: $(wc -l <<<"$symbols") exported symbols, all of the public classes: $(paste -sd' ' <<<"$classes")"
