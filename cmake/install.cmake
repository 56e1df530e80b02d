# Installed files, the pkg-config file, the CMake package and the Debian packages.
include(CMakePackageConfigHelpers)

install(TARGETS zorvac EXPORT zorvac-targets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS zorvac_static EXPORT zorvac-targets ARCHIVE COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zorvac TYPE INCLUDE COMPONENT dev)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zorvac)
install(EXPORT zorvac-targets NAMESPACE zorvac:: DESTINATION ${package_dir} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zorvac-config.cmake.in
  ${PROJECT_BINARY_DIR}/zorvac-config.cmake INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zorvac-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zorvac-config.cmake
              ${PROJECT_BINARY_DIR}/zorvac-config-version.cmake
              ${PROJECT_SOURCE_DIR}/cmake/zorvac-trace.cmake
        DESTINATION ${package_dir} COMPONENT dev)

configure_file(${PROJECT_SOURCE_DIR}/cmake/zorvac.pc.in ${PROJECT_BINARY_DIR}/zorvac.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zorvac.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The libzorvac developers")
set(CPACK_PACKAGE_CONTACT "The libzorvac developers <libzorvac@localhost>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(ZORVAC_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzorvac${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzorvac-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libzorvac${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}")
set(CPACK_COMPONENT_DEV_DESCRIPTION "${PROJECT_DESCRIPTION} (headers and static library)")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zorvac-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "${PROJECT_DESCRIPTION} (tools)")
include(CPack)
