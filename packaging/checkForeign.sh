#!/usr/bin/env bash
# Looks at the packages for arm64 beside those for amd64, and runs their programs under qemu-user.
# Usage: packaging/checkForeign.sh
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

fail() { echo "packages: $*" >&2; exit 1; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

for architecture in amd64 arm64; do
    multiarch=$(dpkg-architecture -a "$architecture" -qDEB_HOST_MULTIARCH 2>/dev/null)
    root=$scratch/$architecture
    for package in libkorvane1 libkorvane-dev korvane-examples traceif-console; do
        file=$(echo "build/packages/$architecture/${package}_"*"_$architecture.deb")
        [ "$(dpkg-deb --field "$file" Architecture)" = "$architecture" ] || fail "$file is of another architecture"
        dpkg-deb --extract "$file" "$root"
        {
            dpkg-deb --field "$file" Package Version Depends Provides Multi-Arch
            dpkg-deb --contents "$file" | sed 's/  */ /g' | cut -d ' ' -f 1,2,6-
        } | sed "s/$multiarch/MULTIARCH/g; /^Depends:/s/ (>= [^)]*)//g" >>"$scratch/$architecture.list"
    done
    # What a trace library's alternative is on an installed system.
    ln -s traceif-console/libtraceif.so "$root/usr/lib/$multiarch/libtraceif.so"
done
diff -u "$scratch/amd64.list" "$scratch/arm64.list" >&2 || fail "the packages of amd64 and arm64 differ"

count=0
while IFS= read -r -d '' file; do
    machine=$({ readelf --file-header "$file" 2>/dev/null || true; } | sed -n 's/^ *Machine: *//p')
    [ -n "$machine" ] || continue # no program, no library
    [ "$machine" = AArch64 ] || fail "$file is for $machine"
    count=$((count + 1))
done < <(find "$scratch/arm64" -type f -print0)
[ "$count" -ge 4 ] || fail "only $count programs and libraries for arm64"

# run ARCHITECTURE MULTIARCH [EMULATOR...]
run() {
    local root=$scratch/$1 folder=$scratch/$1/usr/lib/$2
    shift 2
    "$@" "$root/usr/libexec/korvane/identification" --dump \
        --input "$root/usr/share/doc/korvane-examples/examples/identification/headunit.json"
    "$@" "$root/usr/libexec/korvane/handlers"
}
LD_LIBRARY_PATH=$scratch/amd64/usr/lib/x86_64-linux-gnu \
    run amd64 x86_64-linux-gnu >"$scratch/amd64.out" 2>"$scratch/amd64.err" || fail "the examples for amd64 failed"
run arm64 aarch64-linux-gnu qemu-aarch64 -E "LD_LIBRARY_PATH=$scratch/arm64/usr/lib/aarch64-linux-gnu" \
    >"$scratch/arm64.out" 2>"$scratch/arm64.err" || { cat "$scratch/arm64.err" >&2; fail "the examples for arm64 failed"; }
[ -s "$scratch/arm64.out" ] || fail "the examples printed nothing"
diff -u "$scratch/amd64.out" "$scratch/arm64.out" >&2 || fail "the examples print something else on arm64"

echo "packages: those for arm64 hold what those for amd64 hold, and their examples print the same"
