#!/bin/sh
# Code that uses boxes and lists of the library's own record type, or byte arrays, has no copy of what
# they do.
# Usage: noSecondInstance.sh NM OBJECT...
set -eu
nm=$1
shift
symbols=$("$nm" --demangle "$@" | grep -E 'iAP2(MsgBox|List)<iAP2MsgData>|IAP2::ByteArray::')
if echo "$symbols" | grep -vE '^ +U '; then
    echo "these belong to the library alone" >&2
    exit 1
fi
echo "$(echo "$symbols" | wc -l) uses of the library's instances, and no other instance"
