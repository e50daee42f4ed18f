#!/usr/bin/env bash
# The identification of the shipped head unit is the same, byte by byte and line by line, on every
# target: the payload and the traces are compared with those that are kept here.
# Usage: sameOnEveryTarget.sh [--renew] INPUT PAYLOAD TRACES PROGRAM [ARGUMENT...]
# To keep new ones after a change that means to change them (the program may stand behind an emulator):
#   tests/examples/sameOnEveryTarget.sh --renew examples/identification/headunit.json \
#       tests/examples/headunit.payload tests/examples/headunit.traces \
#       build/dev/examples/identification/identification
set -euo pipefail
renew=false
[ "$1" = --renew ] && { renew=true; shift; }
input=$1 payload=$2 traces=$3
shift 3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "sameOnEveryTarget: $*" >&2; exit 1; }

"$@" --input "$input" --output "$scratch/payload" --level 0 --quiet 2>"$scratch/all" ||
    fail "the program ended with $?"
# The lines of what is marshalled and read; those of threads depend on which of them comes first.
# Stamps and line numbers change; two processes trace at once, so the lines are sorted.
sed -nE 's/ +([[:alnum:]]+\.cpp) +[0-9]+ [0-9]{2,}:[0-9]{2}:[0-9]{2}:[0-9]{3} / \1 /p' "$scratch/all" |
    grep -E '^ *[0-9]+ [A-Z] IAP2 (iAp2Marshal|utils|iAP2Utils)\.cpp ' | LC_ALL=C sort >"$scratch/traces" ||
    fail "there are no traces of marshalling"

if $renew; then
    cp "$scratch/payload" "$payload"
    cp "$scratch/traces" "$traces"
fi
cmp "$payload" "$scratch/payload" || fail "the payload differs"
diff -u "$traces" "$scratch/traces" || fail "the traces differ"
echo "$(wc -c <"$payload") bytes and $(wc -l <"$traces") trace lines are the same"
