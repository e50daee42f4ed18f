#!/bin/sh
# Compares the symbols that a library exports with the list that is checked in.
# Usage: exportedSymbols.sh NM LIBRARY LIST
set -eu
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
"$1" --dynamic --defined-only --demangle "$2" | cut -d ' ' -f 3- | LC_ALL=C sort -u >"$actual"
if ! diff -u "$3" "$actual"; then
    echo "exported symbols differ from $3 (see above: - missing, + not in the list)" >&2
    exit 1
fi
echo "$(wc -l <"$3") exported symbols, all of them in the list"
