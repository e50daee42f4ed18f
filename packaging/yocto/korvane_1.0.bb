SUMMARY = "Common runtime of an iAP2 accessory-protocol stack"
DESCRIPTION = "Trace lines, guarded memory, named threads with message handlers, \
and the marshalling of identification components."
SECTION = "libs"
# No licence has been chosen yet.
LICENSE = "CLOSED"

# The archive holds the sources under korvane-1.0.
SRC_URI = "file://korvane-${PV}.tar.gz \
           file://run-ptest \
          "
S = "${WORKDIR}/korvane-${PV}"

inherit cmake pkgconfig ptest

PACKAGECONFIG ??= "${@bb.utils.contains('PTEST_ENABLED', '1', 'tests', '', d)}"
PACKAGECONFIG[tests] = "-DKORVANE_BUILD_TESTS=ON,-DKORVANE_BUILD_TESTS=OFF,googletest python3-native"
PACKAGECONFIG[examples] = "-DKORVANE_BUILD_EXAMPLES=ON,-DKORVANE_BUILD_EXAMPLES=OFF,nlohmann-json"
# Links the platform's own trace library; whoever turns this on adds the recipe that provides it to
# DEPENDS. Otherwise the console stand-in is built, and gives way to the platform's file at load time.
PACKAGECONFIG[platform-traceif] = "-DKORVANE_TRACEIF_LIBRARY=${STAGING_LIBDIR}/libtraceif.so,-DKORVANE_TRACEIF_LIBRARY="

EXTRA_OECMAKE = "-DKORVANE_BUILD_BENCHMARKS=OFF -DKORVANE_WARNINGS_AS_ERRORS=OFF"

do_install_ptest() {
    for program in unit/korvane_unit_tests unit/korvane_refusal_tests \
                   boundary/korvane_boundary_tests boundary/korvane_stress_tests; do
        install -m 0755 ${B}/tests/$program ${D}${PTEST_PATH}/
    done
}

PACKAGES =+ "${@bb.utils.contains('PACKAGECONFIG', 'platform-traceif', '', 'traceif-console', d)}"

# Without a number in its name it looks like a file for developers, but is loaded by that name.
FILES:traceif-console = "${libdir}/libtraceif.so"
INSANE_SKIP:traceif-console = "dev-so"

FILES:${PN} = "${libdir}/libKorvane.so.*"
FILES:${PN}-dev = "${includedir} ${libdir}/libKorvane.so ${libdir}/cmake ${libdir}/pkgconfig"

RDEPENDS:${PN} = "${@bb.utils.contains('PACKAGECONFIG', 'platform-traceif', '', 'traceif-console', d)}"
