include(CMakePackageConfigHelpers)

set(FOUNDATION_CERTIFICATES_INSTALL_CMAKEDIR
    "${CMAKE_INSTALL_LIBDIR}/cmake/foundation_certificates"
    CACHE STRING "Where the CMake package files are installed")

install(TARGETS foundation_certificates
    EXPORT foundation_certificatesTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        COMPONENT Runtime
        NAMELINK_COMPONENT Development
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Runtime
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Development
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")

install(DIRECTORY include/ "${PROJECT_BINARY_DIR}/include/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT Development
    FILES_MATCHING PATTERN "*.hpp")

install(EXPORT foundation_certificatesTargets
    NAMESPACE foundation::
    DESTINATION "${FOUNDATION_CERTIFICATES_INSTALL_CMAKEDIR}"
    COMPONENT Development)

configure_package_config_file(cmake/foundation_certificatesConfig.cmake.in
    "${PROJECT_BINARY_DIR}/foundation_certificatesConfig.cmake"
    INSTALL_DESTINATION "${FOUNDATION_CERTIFICATES_INSTALL_CMAKEDIR}")
# The shared object's SONAME carries major.minor while the version is 0.x, so only the same
# minor version is compatible.
write_basic_package_version_file(
    "${PROJECT_BINARY_DIR}/foundation_certificatesConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/foundation_certificatesConfig.cmake"
    "${PROJECT_BINARY_DIR}/foundation_certificatesConfigVersion.cmake"
    DESTINATION "${FOUNDATION_CERTIFICATES_INSTALL_CMAKEDIR}"
    COMPONENT Development)

# A relocatable .pc file: the prefix is found relative to the file itself.
file(RELATIVE_PATH FOUNDATION_CERTIFICATES_PC_TO_PREFIX
    "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/foundation-certificates.pc.in
    "${PROJECT_BINARY_DIR}/foundation-certificates.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/foundation-certificates.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT Development)

# Build-tree package, for consumers that point CMAKE_PREFIX_PATH at a build directory.
export(EXPORT foundation_certificatesTargets
    NAMESPACE foundation::
    FILE "${PROJECT_BINARY_DIR}/foundation_certificatesTargets.cmake")
