# `cpack`: a Debian package and an archive of what `cmake --install` puts down.

set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_NAME libinfra-dev)
set(CPACK_PACKAGE_VENDOR "The Infra maintainers")
set(CPACK_PACKAGE_CONTACT "The Infra maintainers <maintainers@infra.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Threads, timers, packets, logging and utilities for long-running services")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

include(CPack)
