#!/usr/bin/env bash
# Installs the packages of this machine's architecture into a Debian that has nothing but a compiler
# and CMake, and uses them there. That Debian is kept in build/packages for the next time.
# Usage: packaging/checkInCleanRoot.sh
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

fail() { echo "packages: $*" >&2; exit 1; }
[ "$(id -u)" = 0 ] || fail "a root of its own takes root"

packages=build/packages/$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
codename=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
clean=$PWD/build/packages/root-$codename.tar

root=$(mktemp -d "$PWD/build/packages/root.XXXXXX")
trap 'rm -rf --one-file-system "$root"' EXIT
if [ ! -f "$clean" ]; then
    mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(ORIGIN)' 'Created-By: Packages' |
        sed -n "s/ $codename Debian\$//p" | head -n 1)
    [ -n "$mirror" ] || fail "apt knows no mirror of $codename"
    echo "packages: making a clean root of $codename"
    debootstrap --variant=minbase --include=g++,cmake,make,pkg-config "$codename" "$root" "$mirror" \
        >build/packages/root.log 2>&1 || { tail -n 20 build/packages/root.log >&2; fail "debootstrap failed"; }
    chroot "$root" apt-get clean
    tar --create --one-file-system --directory="$root" --file="$clean.new" .
    mv "$clean.new" "$clean"
else
    tar --extract --preserve-permissions --directory="$root" --file="$clean"
fi

inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C "$@"; }
# quietly COMMAND...: inside, shown only when it fails.
quietly() { inside "$@" >"$root/log" 2>&1 || { cat "$root/log" >&2; fail "failed in the clean root: $*"; }; }
version=$(dpkg-parsechangelog --file packaging/debian/changelog --show-field Version)
installPackages() { # PACKAGE...
    local files=() package
    for package; do
        cp "$packages/${package}_${version}_"*.deb "$root/tmp/"
        files+=("/tmp/$(basename "$packages/${package}_${version}_"*.deb)")
    done
    quietly dpkg --install "${files[@]}"
}

# Programs alone, on a machine that has no development files.
installPackages libkorvane1 traceif-console korvane-examples
inside /usr/libexec/korvane/identification --dump \
    --input /usr/share/doc/korvane-examples/examples/identification/headunit.json >"$root/log" 2>&1 ||
    { cat "$root/log" >&2; fail "the identification example failed"; }
[ "$(inside /usr/libexec/korvane/handlers 2>/dev/null)" = 55 ] || fail "the handlers example printed another sum"

# The README's example, by pkg-config and by find_package.
installPackages libkorvane-dev
mkdir "$root/tmp/readme"
cat >"$root/tmp/readme/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.25)
project(Readme LANGUAGES CXX)
find_package(Korvane 1.0 CONFIG REQUIRED)
add_executable(readme /usr/share/doc/libkorvane-dev/examples/readme.cpp)
target_link_libraries(readme PRIVATE Korvane::Korvane)
PROJECT
build() {
    rm -rf "$root/tmp/readme/build" "$root/tmp/readme/plain"
    quietly sh -c 'c++ /usr/share/doc/libkorvane-dev/examples/readme.cpp \
        $(pkg-config --cflags --libs korvane) -o /tmp/readme/plain'
    quietly sh -c 'cd /tmp/readme && cmake -B build && cmake --build build'
}
# expect WHO PATTERN: both programs print one line, which is of this trace library.
expect() {
    local program
    for program in plain build/readme; do
        inside "/tmp/readme/$program" >"$root/log" 2>&1 || { cat "$root/log" >&2; fail "$program failed, where $1 was expected"; }
        if [ "$(wc -l <"$root/log")" != 1 ] || ! grep -qE "$2" "$root/log"; then
            cat "$root/log" >&2
            fail "$program did not print by $1"
        fi
    done
}
line='readme\.cpp +[0-9]+ [0-9:]{12} +24 bytes *$'
build
expect "the stand-in" "^128 I IAP2 +$line"

# The platform's own library as a package, in the library folder.
own=$root/tmp/own
mkdir -p "$own/DEBIAN" "$own/usr/lib/$multiarch"
cp tests/package/platformTraceif.c "$root/tmp/"
quietly cc -shared -fPIC /tmp/platformTraceif.c -o "/tmp/own/usr/lib/$multiarch/libtraceif.so"
cat >"$own/DEBIAN/control" <<CONTROL
Package: platform-traceif
Version: 1
Architecture: $(dpkg --print-architecture)
Multi-Arch: same
Maintainer: The platform <platform@korvane.example>
Provides: libtraceif
Description: trace library of a platform
CONTROL
quietly dpkg-deb --root-owner-group --build /tmp/own /tmp/own.deb
quietly dpkg --install /tmp/own.deb
expect "the platform's library, installed beside the stand-in" "^platform 128: I IAP2 +$line"
quietly dpkg --remove traceif-console
build
expect "the platform's library alone" "^platform 128: I IAP2 +$line"
installPackages traceif-console
expect "the platform's library, there before the stand-in" "^platform 128: I IAP2 +$line"
quietly dpkg --remove platform-traceif
expect "the stand-in, after the platform's library has gone" "^128 I IAP2 +$line"

# The platform's own library elsewhere, as an alternative.
mkdir -p "$root/opt/platform"
cp "$own/usr/lib/$multiarch/libtraceif.so" "$root/opt/platform/"
alternative=libtraceif.so-$multiarch
quietly update-alternatives --install "/usr/lib/$multiarch/libtraceif.so" "$alternative" \
    /opt/platform/libtraceif.so 50
expect "the platform's alternative" "^platform 128: I IAP2 +$line"
quietly update-alternatives --remove "$alternative" /opt/platform/libtraceif.so
expect "the stand-in, after the platform's alternative has gone" "^128 I IAP2 +$line"

# Nothing stays behind.
quietly dpkg --purge korvane-examples libkorvane-dev libkorvane1 traceif-console
left=$(find "$root/usr" "$root/etc" "$root/var/lib/dpkg/alternatives" -iname '*korvane*' -o -name '*traceif*')
[ -z "$left" ] || fail "removed packages leave behind: $left"

echo "packages: installed in a clean $codename, the README's example is built and run by pkg-config and by find_package"
echo "packages: the platform's libtraceif.so takes the stand-in's place as a package and as an alternative"
