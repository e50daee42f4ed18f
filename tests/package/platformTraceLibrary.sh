#!/usr/bin/env bash
# Builds the library against a trace library of the platform's own, and shows that the library is the
# same file as with the stand-in, and that either trace library serves it.
# Usage: platformTraceLibrary.sh SOURCE_FOLDER BUILD_FOLDER PLATFORM_LIBRARY PROGRAM
set -euo pipefail
source=$1 build=$2 platform=$3 program=$4

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "platformTraceLibrary: $*" >&2; exit 1; }

cached() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
cmake -S "$source" -B "$scratch/build" -DKORVANE_TRACEIF_LIBRARY="$platform" \
    -DKORVANE_BUILD_TESTS=OFF -DKORVANE_BUILD_EXAMPLES=OFF \
    -DCMAKE_C_COMPILER="$(cached CMAKE_C_COMPILER)" -DCMAKE_CXX_COMPILER="$(cached CMAKE_CXX_COMPILER)" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_SKIP_RPATH=ON >"$scratch/log" || { cat "$scratch/log"; exit 1; }
cmake --build "$scratch/build" -j2 >"$scratch/log" || { cat "$scratch/log"; exit 1; }
cmake --install "$scratch/build" --prefix "$scratch/platform" >"$scratch/log"
[ -z "$(find "$scratch/platform" -name 'libtraceif*')" ] || fail "the platform's library was installed"

cmake -S "$source" -B "$scratch/build" -DKORVANE_TRACEIF_LIBRARY= >"$scratch/log"
cmake --build "$scratch/build" -j2 >"$scratch/log" || { cat "$scratch/log"; exit 1; }
cmake --install "$scratch/build" --prefix "$scratch/console" >"$scratch/log"

with_platform=$(find "$scratch/platform" -name libKorvane.so.1.0.0)
with_console=$(find "$scratch/console" -name libKorvane.so.1.0.0)
cmp "$with_platform" "$with_console" || fail "the library changes with the trace library"
readelf -d "$with_platform" | grep -q 'NEEDED.*\[libtraceif\.so\]' || fail "libtraceif.so is not needed by that name"

# A package built against the platform's library finds that one for its clients.
cat >"$scratch/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.25)
project(Probe LANGUAGES CXX)
find_package(Korvane CONFIG REQUIRED)
file(WRITE "${CMAKE_BINARY_DIR}/main.cpp"
     "#include <korvane/iAp2LogUtil.h>\nint main() { logPrint(40, \"IAP2\", nullptr, 0, \"x\"); }\n")
add_executable(probe "${CMAKE_BINARY_DIR}/main.cpp")
target_link_libraries(probe PRIVATE Korvane::Korvane)
PROJECT
cmake -S "$scratch" -B "$scratch/probe" -DCMAKE_PREFIX_PATH="$scratch/platform" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
cmake --build "$scratch/probe" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
LD_LIBRARY_PATH=$(dirname "$platform") "$scratch/probe/probe" 2>&1 | grep -q '^platform 128: I IAP2 ' || fail "the probe's line did not reach the platform's library"

# A trace library that is found first at load time takes the place of the one that was linked.
"$program" 2>&1 | grep -q '^128 I IAP2 ' || fail "the stand-in did not print the line"
LD_LIBRARY_PATH=$(dirname "$platform") "$program" 2>&1 | grep -q '^platform 128: I IAP2 ' ||
    fail "the platform's library did not take the stand-in's place"

echo "the library is the same with either trace library, and takes the one that it finds"
