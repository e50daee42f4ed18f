#!/usr/bin/env bash
# Compares the number of slots in each exported virtual table with what clients were compiled against.
# Usage: virtualTables.sh NM LIBRARY
set -euo pipefail
nm=$1 library=$2
tables=$("$nm" --dynamic --defined-only --demangle --print-size "$library")
# A table begins with two words of its own, the offset and the type; then come the slots.
diff -u - <(sed -n 's/^[0-9a-f]* \([0-9a-f]*\) [A-Za-z] vtable for \(.*\)/\1 \2/p' <<<"$tables" |
    while read -r size name; do echo "$((16#$size / 8 - 2)) $name"; done | LC_ALL=C sort -k 2) <<'TABLES' || {
2 EventTable
2 iAP2List<iAP2MsgData>
2 iAP2MsgBox<iAP2MsgData>
2 iAP2MsgBox<iAP2MsgData>::iAP2MsgBoxImpl
3 iAP2MsgHandler
2 iAP2Mutex
3 iAP2Thread
TABLES
    echo "the virtual tables have changed (see above: - expected, + built)" >&2
    exit 1
}
echo "every virtual table has as many slots as ever"
