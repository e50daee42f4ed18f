#!/usr/bin/env bash
# Builds the library from two copies of the sources, in folders of different names and depths, and
# compares what comes out, with its debugging information, byte by byte.
# Usage: reproducible.sh SOURCE_FOLDER CC CXX
set -euo pipefail
source=$1
export CC=$2 CXX=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "reproducible: $*" >&2; exit 1; }

mkdir "$scratch/source"
cp -R "$source"/{CMakeLists.txt,Sources,cmake,platform} "$scratch/source"

build() { # folder of the sources, folder to build in
    mkdir -p "$1"
    cp -R "$scratch/source/." "$1"
    cmake -S "$1" -B "$2" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVANE_BUILD_TESTS=OFF \
        -DKORVANE_BUILD_EXAMPLES=OFF >"$scratch/log" || { cat "$scratch/log"; exit 1; }
    cmake --build "$2" -j2 >"$scratch/log" || { cat "$scratch/log"; exit 1; }
    DESTDIR=$1/installed cmake --install "$2" --prefix /usr >"$scratch/log"
}
build "$scratch/one" "$scratch/one/build"
build "$scratch/another/one/farther/down" "$scratch/built"
one=$scratch/one another=$scratch/another/one/farther/down

cmp "$one/build/Sources/libKorvane.so.1.0.0" "$scratch/built/Sources/libKorvane.so.1.0.0" ||
    fail "the library depends on the folder that it is built in"
diff -r "$one/installed" "$another/installed" || fail "what is installed depends on the folder"
! grep -rqF "$scratch" "$one/installed" || fail "what is installed names the folder it was built in"
echo "$(find "$one/installed" -type f | wc -l) installed files are the same from both folders"
