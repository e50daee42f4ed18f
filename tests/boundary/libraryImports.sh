#!/usr/bin/env bash
# Shows what the library asks of others.
# Usage: libraryImports.sh NM READELF LIBRARY LOG_OBJECT...
set -euo pipefail
nm=$1 readelf=$2 library=$3
shift 3
status=0
line=() writer=()
for object; do
    # A path of its own beside the trace line's, which locks, allocates and starts a thread.
    case $object in
        */iAP2ExtLogQueue.cpp.*) writer+=("$object") ;;
        *) line+=("$object") ;;
    esac
done
[ ${#line[@]} -gt 0 ] || { echo "no object of a trace line's code was named" >&2; exit 1; }
[ ${#writer[@]} -gt 0 ] || { echo "no object of the queued writer was named" >&2; exit 1; }
imports() { "$nm" --undefined-only --format=just-symbols "$@" | sed '/:$/d; /^$/d' | sort -u; }
# Taken first, so that a tool that fails ends the test.
dependencies=$("$readelf" -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
symbols=$(imports "${line[@]}")
writerSymbols=$(imports "${writer[@]}")

# The library depends on the C and C++ runtimes and on the trace library, and on nothing else.
while read -r needed; do
    case $needed in
        libtraceif.so | libstdc++.so.6 | libgcc_s.so.1 | libc.so.6 | libm.so.6 | ld-linux-*) ;;
        *) echo "the library depends on $needed" >&2; status=1 ;;
    esac
done <<<"$dependencies"

# A trace line takes no lock and no memory: its code calls nothing that could do either.
while read -r symbol; do
    case $symbol in
        clock_gettime | syscall | vsnprintf | qn_log_print) ;;
        memcpy | memset | memmove | strlen | strnlen | strrchr) ;;
        logPrint | iAP2ExtLog | iAp2ExternelLogWirteDirect) ;;
        korvaneLogLevel | korvanePrintLine | korvaneReportError) ;;
        _GLOBAL_OFFSET_TABLE_ | __stack_chk_fail) ;;
        __gxx_personality_v0 | _Unwind_Resume | DW.ref.__gxx_personality_v0) ;;
        *) echo "the code of a trace line calls $symbol" >&2; status=1 ;;
    esac
done <<<"$symbols"

# What the queued writer says about itself goes to standard output, never into a trace line.
while read -r symbol; do
    case $symbol in
        logPrint | korvaneLogLevel | korvanePrintLine | korvaneReportError)
            echo "the queued writer calls $symbol" >&2; status=1 ;;
    esac
done <<<"$writerSymbols"

[ $status = 0 ] && echo "nothing is asked for but what is expected"
exit $status
