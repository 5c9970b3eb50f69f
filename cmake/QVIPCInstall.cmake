# Install rules: the shared library, its public headers (listed by each part), a CMake package
# exporting qvipc::qvipc, and a pkg-config file.
include_guard(GLOBAL)
include(CMakePackageConfigHelpers)

install(TARGETS qvipc EXPORT qvipcTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qvipc)
install(EXPORT qvipcTargets NAMESPACE qvipc::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvipc)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qvipcConfig.cmake.in
    ${PROJECT_BINARY_DIR}/qvipcConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvipc)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qvipcConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvipcConfig.cmake ${PROJECT_BINARY_DIR}/qvipcConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvipc)

configure_file(${PROJECT_SOURCE_DIR}/cmake/qvipc.pc.in ${PROJECT_BINARY_DIR}/qvipc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvipc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
