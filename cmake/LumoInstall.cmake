# Installs what a consumer needs: the library with its headers, the CMake package
# (find_package(lumo 0.2 CONFIG REQUIRED) gives lumo::lumo), lumo.pc for pkg-config and the
# lumo tool; and describes the Debian package `cpack -G DEB` builds from the same install.
include(CMakePackageConfigHelpers)

set(LUMO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/lumo)

install(TARGETS lumo EXPORT lumoTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/lumo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/generated/lumo/version.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lumo)
install(EXPORT lumoTargets NAMESPACE lumo:: DESTINATION ${LUMO_CMAKE_DIR})

configure_package_config_file(cmake/lumoConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/package/lumoConfig.cmake
                              INSTALL_DESTINATION ${LUMO_CMAKE_DIR})
# Before 1.0 a minor version may break the API: 0.2 accepts 0.2.x only.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/lumoConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/lumoConfig.cmake
              ${PROJECT_BINARY_DIR}/package/lumoConfigVersion.cmake
        DESTINATION ${LUMO_CMAKE_DIR})

# The .pc file finds its prefix from where it lies, so the same file serves
# `cmake --install --prefix DIR` and the Debian package.
file(RELATIVE_PATH LUMO_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/lumo.pc.in ${PROJECT_BINARY_DIR}/package/lumo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/lumo.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET lumo_cli)
  install(TARGETS lumo_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# cpack builds nothing itself: build the library and the tool first (scripts/check-package),
# instead of every test and benchmark that `all` holds.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_PACKAGE_NAME lumo)
set(CPACK_PACKAGE_VENDOR "Lumo")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Visual regression testing of mobile apps: C++ library, CMake package and lumo tool")
set(CPACK_PACKAGE_CONTACT "Lumo developers <lumo@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
# The static library's own dependencies (headers and link libraries, as lumoConfig.cmake and
# lumo.pc look for them) and what the tool loads at run time.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libcurl4-openssl-dev, nlohmann-json3-dev, libfmt-dev, libpng-dev, zlib1g-dev, \
libdeflate-dev, pkg-config, libsqlite3-0, libssl3")
include(CPack)
