#!/usr/bin/env bash
# Compares what clients are compiled against with what is kept below packaging: the baseline of each
# architecture, and the Debian symbols file. The libraries are those of the builds `abi` and
# `abi-aarch64`.
# Usage: tools/abi.sh [--renew]   (--renew writes what is kept anew)
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

fail() { echo "abi: $*" >&2; exit 1; }
renew=
case "$*" in
    "") ;;
    --renew) renew=yes ;;
    *) fail "unknown option '$*'; known is --renew" ;;
esac

symbols=packaging/debian/libkorvane1.symbols
version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' CMakeLists.txt)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0

# The patterns by which Debian's tools know the exported symbols; C++ ones by their plain names, several
# constructors or destructors behind one of them.
patterns() {
    nm --dynamic --defined-only --format=just-symbols "$1" | while read -r symbol; do
        case $symbol in
            _Z*) echo "(c++)\"$(c++filt "$symbol")@Base\"" ;;
            *) echo "$symbol@Base" ;;
        esac
    done | LC_ALL=C sort -u
}

for build in abi abi-aarch64; do
    library=build/$build/Sources/libKorvane.so.$version
    [ -f "$library" ] || fail "no $library"
    [ $build = abi ] && architecture=$(uname -m) || architecture=aarch64
    baseline=packaging/abi/libKorvane.$architecture.abi
    current=$scratch/$architecture.abi
    abidw --type-id-style hash --no-elf-needed --no-comp-dir-path --no-corpus-path "$library" |
        python3 tools/reduceAbi.py "$PWD" >"$current"
    patterns "$library" >"$scratch/patterns"

    if [ -n "$renew" ]; then
        mkdir -p packaging/abi
        cp "$current" "$baseline"
        # A symbol that is known keeps the version that it came with.
        awk -v version="$version" '
            FILENAME == "-" { sub(/^ /, ""); line = $0; sub(/ [^ ]*$/, ""); known[$0] = line; next }
            { print " " ($0 in known ? known[$0] : $0 " " version) }' \
            - "$scratch/patterns" < <(grep '^ ' "$symbols") >"$scratch/symbols"
        { grep -v '^ ' "$symbols"; cat "$scratch/symbols"; } >"$scratch/whole"
        cp "$scratch/whole" "$symbols"
        echo "abi: renewed $baseline and $symbols"
        continue
    fi
    if ! abidiff --harmless "$baseline" "$current" >"$scratch/report" 2>&1; then
        cat "$scratch/report" >&2
        echo "abi: $architecture differs from $baseline (see above)" >&2
        status=1
    fi
    if ! diff -u --label "$symbols" --label "$library" \
        <(sed -n 's/^ \(.*\) [^ ]*$/\1/p' "$symbols" | LC_ALL=C sort) "$scratch/patterns" >&2; then
        echo "abi: the exported symbols differ from $symbols (see above)" >&2
        status=1
    fi
    [ $status != 0 ] || echo "abi: $architecture is what $baseline says, $(wc -l <"$scratch/patterns") symbols"
done
[ $status = 0 ] || fail "if the change is meant: docs/abi.md, then ./run abi --renew"
