# What `cmake --install` puts where: the library, its headers, and the files by which
# find_package(Korvane) and `pkg-config korvane` find them.
include(CMakePackageConfigHelpers)

set(KORVANE_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Korvane")

set(installedTargets korvane)
if(KORVANE_TRACEIF_LIBRARY)
  set(KORVANE_TRACEIF_IS_INSTALLED FALSE)
else()
  set(KORVANE_TRACEIF_IS_INSTALLED TRUE)
  list(APPEND installedTargets korvane_traceif)
endif()

install(TARGETS ${installedTargets} EXPORT KorvaneTargets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(FILES ${KORVANE_PUBLIC_HEADERS} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/korvane")
install(FILES platform/traceif/traceif.h DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/traceif")
install(EXPORT KorvaneTargets NAMESPACE Korvane:: DESTINATION "${KORVANE_CMAKE_DIR}")

configure_package_config_file(cmake/KorvaneConfig.cmake.in
                              "${PROJECT_BINARY_DIR}/package/KorvaneConfig.cmake"
                              INSTALL_DESTINATION "${KORVANE_CMAKE_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/KorvaneConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/KorvaneConfig.cmake"
              "${PROJECT_BINARY_DIR}/package/KorvaneConfigVersion.cmake"
        DESTINATION "${KORVANE_CMAKE_DIR}")

# Relative to the file, so that the package can be installed or moved anywhere.
file(RELATIVE_PATH KORVANE_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
     "${CMAKE_INSTALL_PREFIX}")
set(KORVANE_PC_TRACEIF "")
if(KORVANE_TRACEIF_LIBRARY)
  # So that a client's linker finds what libKorvane.so needs.
  get_filename_component(traceifFolder "${KORVANE_TRACEIF_LIBRARY}" DIRECTORY)
  set(KORVANE_PC_TRACEIF "-Wl,-rpath-link,${traceifFolder} ")
endif()
configure_file(cmake/korvane.pc.in "${PROJECT_BINARY_DIR}/package/korvane.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/korvane.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
