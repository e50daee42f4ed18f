#!/usr/bin/env bash
# Builds the library with the compiler flags of other people and passes tests with each result. The
# tests are those of the build 'dev' (and 'aarch64'), compiled once: the unit tests are linked again
# with the variant's objects, the tests from outside load the variant's library.
# Usage: variants.sh   (after `dev` and `aarch64` were built)
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
fail() { echo "variants: $*" >&2; exit 1; }

unit=tests/unit/korvane_unit_tests
outside=(tests/boundary/korvane_boundary_tests tests/boundary/korvane_stress_tests)
readelf=readelf

# configure NAME CMAKE-ARGUMENT...: builds build/variants/NAME, the library alone.
configure() {
    name=$1 folder=build/variants/$1 log=build/variants/$1.log
    shift
    mkdir -p build/variants
    if ! { cmake -S . -B "$folder" -G Ninja -DKORVANE_WARNINGS_AS_ERRORS=ON -DKORVANE_BUILD_TESTS=OFF \
        -DKORVANE_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=None "$@" &&
        cmake --build "$folder" -j "$(nproc)"; } >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        fail "'$name' does not build; the whole log is in $log"
    fi
    library=$folder/Sources/libKorvane.so
}

# passOutside BUILD [EMULATOR...]: the tests that load the library, with the variant's.
passOutside() {
    local build=$1 test
    shift
    for test in "${outside[@]}"; do
        LD_LIBRARY_PATH=$PWD/$folder/Sources "$@" "$build/$test" --gtest_brief=1 >>"$log" 2>&1 ||
            { tail -n 40 "$log" >&2; fail "'$name': $test failed; the whole log is in $log"; }
    done
}

# passUnit: the unit tests, with the variant's objects in place of those of `dev`.
passUnit() {
    local command
    command=$(ninja -C build/dev -t commands "$unit" | tail -n 1)
    command=${command//Sources\/CMakeFiles\/korvane_objects.dir/..\/variants\/$name\/Sources\/CMakeFiles\/korvane_objects.dir}
    command=${command//-o tests\/unit\/korvane_unit_tests /-o ../variants/$name/unit_tests }
    # What stands behind the link command would list the tests once more.
    command=${command%% && cd *}
    (cd build/dev && eval "$command") >>"$log" 2>&1 || { tail "$log" >&2; fail "'$name': the unit tests do not link"; }
    "$folder/unit_tests" --gtest_brief=1 >>"$log" 2>&1 ||
        { tail -n 40 "$log" >&2; fail "'$name': unit tests failed; the whole log is in $log"; }
}

# has PATTERN WHAT READELF-OPTION...: the library shows what the flags promise.
has() {
    local pattern=$1 what=$2
    shift 2
    "$readelf" --wide "$@" "$library" 2>>"$log" | grep -E "$pattern" >>"$log" || fail "'$name': $what is missing"
}

done_() { echo "variants: $name: ${SECONDS}s"; }

SECONDS=0
configure shared-off -DBUILD_SHARED_LIBS=OFF
[ -e "$library" ] || fail "BUILD_SHARED_LIBS=OFF leaves no shared library"
configure size -DCMAKE_CXX_FLAGS="-Os" -DCMAKE_C_FLAGS="-Os"
passUnit
passOutside build/dev
done_

configure no-plt -DCMAKE_CXX_FLAGS="-O2 -fno-plt"
passUnit
passOutside build/dev
done_

# The unit tests stand between objects and platform by names, which this leaves to the linker: from
# outside alone.
configure lto -DCMAKE_CXX_FLAGS="-O2 -flto=auto"
passOutside build/dev
done_

fortify=-D_FORTIFY_SOURCE=2
[ "$(gcc -dumpversion | cut -d. -f1)" -ge 12 ] && fortify=-D_FORTIFY_SOURCE=3
hardening="-O2 $fortify -fstack-protector-strong -fstack-clash-protection"
if [ "$(uname -m)" = x86_64 ]; then
    configure hardened -DCMAKE_CXX_FLAGS="$hardening -fcf-protection=full"
    has 'IBT, SHSTK' "the note of protected branches" --notes
else
    configure hardened -DCMAKE_CXX_FLAGS="$hardening"
fi
has GNU_RELRO "the part that is write-protected" --program-headers
has 'FLAGS.*(BIND_NOW|NOW)' "binding at once" --dynamic
has 'UND __stack_chk_fail' "the stack protector" --dyn-syms
has 'UND __\w+_chk@' "a fortified call" --dyn-syms
passUnit
passOutside build/dev
done_

readelf=aarch64-linux-gnu-readelf
configure hardened-aarch64 -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-toolchain.cmake" \
    -DCMAKE_CXX_FLAGS="$hardening -mbranch-protection=standard"
has 'BTI, PAC' "the note of protected branches" --notes
has GNU_RELRO "the part that is write-protected" --program-headers
has 'UND __stack_chk_fail' "the stack protector" --dyn-syms
passOutside build/aarch64 qemu-aarch64
done_

configure shipped-aarch64 -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-toolchain.cmake" \
    -DCMAKE_CXX_FLAGS="-Os -flto=auto -fomit-frame-pointer -mcmodel=tiny -DNDEBUG" \
    -DCMAKE_SHARED_LINKER_FLAGS="-Wl,-z,max-page-size=4096"
passOutside build/aarch64 qemu-aarch64
done_
