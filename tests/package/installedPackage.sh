#!/usr/bin/env bash
# Installs a build into an empty prefix and uses it from there as somebody else's project would:
# by find_package() and by pkg-config, from C11 and from C++14.
# Usage: installedPackage.sh BUILD_FOLDER CLIENT_FOLDER CC CXX
set -euo pipefail
build=$1 client=$2 cc=$3 cxx=$4

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
fail() { echo "installedPackage: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >"$scratch/install.log"
libdir=$(dirname "$(find "$prefix" -name libKorvane.so)")

# The files, with the library folder's name (which distributions choose) taken out.
(cd "$prefix" && find . \( -type f -o -type l \) | sed "s|${libdir#"$prefix"/}|lib|" | LC_ALL=C sort) >"$scratch/files"
sed -i 's/KorvaneTargets-[a-z]*\.cmake/KorvaneTargets-@CONFIG@.cmake/' "$scratch/files"
diff -u - "$scratch/files" <<'FILES' || fail "the installed files have changed"
./include/korvane/ByteArray.h
./include/korvane/DataQueueList.h
./include/korvane/SharedContext.h
./include/korvane/iAP2ExtLog.h
./include/korvane/iAP2ListImpl.h
./include/korvane/iAP2MsgBoxImpl.h
./include/korvane/iAP2MsgHandler.h
./include/korvane/iAP2Mutex.h
./include/korvane/iAP2Thread.h
./include/korvane/iAP2Utils.h
./include/korvane/iAp2LogUtil.h
./include/korvane/iAp2Marshal.h
./include/korvane/utils.h
./include/traceif/traceif.h
./lib/cmake/Korvane/KorvaneConfig.cmake
./lib/cmake/Korvane/KorvaneConfigVersion.cmake
./lib/cmake/Korvane/KorvaneTargets-@CONFIG@.cmake
./lib/cmake/Korvane/KorvaneTargets.cmake
./lib/libKorvane.so
./lib/libKorvane.so.1
./lib/libKorvane.so.1.0.0
./lib/libtraceif.so
./lib/pkgconfig/korvane.pc
FILES

expect() { # name, command...: runs a client and compares what it prints and traces
    local name=$1 wanted=$2 traced=$3
    shift 3
    local printed
    printed=$(LD_LIBRARY_PATH=$libdir "$@" 2>"$scratch/traces") || fail "$name: exit code $?"
    [ "$printed" = "$wanted" ] || fail "$name printed '$printed', not '$wanted'"
    grep -q "^128 I IAP2 .* $traced\$" "$scratch/traces" || fail "$name: no trace '$traced'"
}

# By find_package().
CC=$cc CXX=$cxx cmake -S "$client" -B "$scratch/client" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" >"$scratch/configure.log" || { cat "$scratch/configure.log"; exit 1; }
cmake --build "$scratch/client" >"$scratch/build.log" || { cat "$scratch/build.log"; exit 1; }
expect "C by find_package" 8 "from C" "$scratch/client/client_c"
expect "C++14 by find_package" "0 13" "from C++" "$scratch/client/client_cxx"

# By pkg-config.
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -ra flags < <(pkg-config --cflags --libs korvane)
"$cc" -std=c11 -O2 -Wall -Wextra -Wpedantic -Werror "$client/client.c" "${flags[@]}" -o "$scratch/c"
"$cxx" -std=c++14 -O2 -Wall -Wextra -Wpedantic -Werror "$client/client.cpp" "${flags[@]}" -o "$scratch/cxx"
expect "C by pkg-config" 8 "from C" "$scratch/c"
expect "C++14 by pkg-config" "0 13" "from C++" "$scratch/cxx"
[ "$(pkg-config --modversion korvane)" = 1.0.0 ] || fail "pkg-config names another version"

echo "the installed package serves C11 and C++14, by find_package and by pkg-config"
