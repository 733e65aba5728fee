#!/bin/sh
# The library must export exactly the functions and globals that the public
# header declares: nothing internal, nothing C++-mangled, nothing missing.
# usage: check_exports.sh LIBRARY HEADER
set -eu
lib=$1 header=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Declarations span lines; join each one up to its ';' and take the name
# before '(' (functions) or before '[' / ';' (globals).
grep -v '^[[:space:]]*#' "$header" | tr '\n' ' ' | tr ';' '\n' | grep 'KEMO_API' |
    sed -E 's/.*KEMO_API//; s/\(.*//; s/\[.*//; s/[*]/ /g' |
    awk '{print $NF}' | sort -u >"$tmp/declared"

nm -D --defined-only "$lib" | awk '$2 != "A" {print $3}' | sed 's/@.*//' | sort -u >"$tmp/exported"

if ! cmp -s "$tmp/declared" "$tmp/exported"; then
    echo "exports differ from the header (< declared only, > exported only):"
    diff "$tmp/declared" "$tmp/exported" | grep '^[<>]'
    exit 1
fi
echo "$(wc -l <"$tmp/exported") symbols exported, all declared in the header"
