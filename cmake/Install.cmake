# What `cmake --install` puts down: library, headers below Tarsel/, CMake package, pkg-config file.

install(TARGETS Infra EXPORT InfraTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/Include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Tarsel
        FILES_MATCHING PATTERN "*.h")

set(INFRA_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Infra)
install(EXPORT InfraTargets NAMESPACE Infra:: DESTINATION ${INFRA_PACKAGE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/InfraConfig.cmake.in
    ${PROJECT_BINARY_DIR}/InfraConfig.cmake INSTALL_DESTINATION ${INFRA_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/InfraConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/InfraConfig.cmake ${PROJECT_BINARY_DIR}/InfraConfigVersion.cmake
        DESTINATION ${INFRA_PACKAGE_DIR})

# The file finds its prefix from where it lies, so an installed tree may be moved.
file(RELATIVE_PATH INFRA_PREFIX_FROM_PC /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" INFRA_PREFIX_FROM_PC "${INFRA_PREFIX_FROM_PC}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/Infra.pc.in ${PROJECT_BINARY_DIR}/Infra.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/Infra.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
