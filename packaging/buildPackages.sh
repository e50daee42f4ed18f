#!/usr/bin/env bash
# Builds the Debian packages of the files that git knows, changed ones included, in a tree of their own.
# Usage: packaging/buildPackages.sh ARCHITECTURE...   (amd64, arm64; packages go to build/packages/)
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

version=$(dpkg-parsechangelog --file packaging/debian/changelog --show-field Version)
grep -qx " *VERSION $version" CMakeLists.txt || {
    echo "packages: CMakeLists.txt has another version than packaging/debian/changelog, $version" >&2
    exit 1
}

mkdir -p build/packages
source=$PWD/build/packages/source.tar
git ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' file; do [ ! -e "$file" ] || printf '%s\0' "$file"; done |
    tar --create --null --files-from=- --file="$source"

for architecture; do
    out=$PWD/build/packages/$architecture
    log=$out/build.log
    tree=$out/tree/korvane
    rm -rf "$out"
    mkdir -p "$tree"
    tar --extract --directory="$tree" --file="$source"
    cp -r "$tree/packaging/debian" "$tree/debian"

    options=(--build=binary --unsigned-source --unsigned-changes --no-pre-clean)
    if [ "$architecture" != "$(dpkg --print-architecture)" ]; then
        # Whatever is needed was installed by name; Debian's list of it would ask for more.
        options+=(--host-arch="$architecture" --build-profiles=cross,nocheck --no-check-builddeps)
    fi
    echo "packages: building for $architecture"
    if ! (cd "$tree" && DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage "${options[@]}") >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        echo "packages: building for $architecture failed; the whole log is in ${log#"$PWD"/}" >&2
        exit 1
    fi
    mv "$out"/tree/*.deb "$out"/tree/*.changes "$out"/tree/*.buildinfo "$out"
    rm -rf "$out/tree"

    lintian --allow-root --fail-on error,warning,info --display-info --tag-display-limit 0 "$out"/*.changes
    echo "packages: lintian has nothing to say about $architecture"
done
