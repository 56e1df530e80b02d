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

# The prefix is told relative to the file, which so stays right wherever a package puts it.
file(RELATIVE_PATH pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/zorvac.pc.in ${PROJECT_BINARY_DIR}/zorvac.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zorvac.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

# Manual pages and the changelog are installed compressed as Debian's policy asks, without a time, so
# that the same sources make the same packages: zorvac_compress(<file in the project> <its copy>)
function(zorvac_compress from to)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${from})
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/${from}
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/${to} COMMAND_ERROR_IS_FATAL ANY)
endfunction()
zorvac_compress(docs/man/zorvac.7 zorvac.7.gz)
install(FILES ${PROJECT_BINARY_DIR}/zorvac.7.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
        COMPONENT dev)

# The Debian packages. A component is one row here; its files are installed under
# its name.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The libzorvac developers")
set(CPACK_PACKAGE_CONTACT "The libzorvac developers <libzorvac@localhost>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL "")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(description "It identifies the processor, checks at start that a program may run on
it, copies and fills memory, allocates from pools, computes in binary128
and 128-bit integers, and multiplies matrices. Compilers emit the calls.")

# zorvac_package(<component> <package name> <section> <what this package holds>)
macro(zorvac_package component name section holds)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${description}\n\n${holds}")
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright ${PROJECT_BINARY_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endmacro()
zorvac_compress(CHANGELOG.md changelog.gz)

set(runtime_package libzorvac${PROJECT_VERSION_MAJOR})
zorvac_package(runtime ${runtime_package} libs "This package has the shared library.")
zorvac_package(dev libzorvac-dev libdevel
               "This package has the headers, the static library and the manual page.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION}), libc6-dev")
if(ZORVAC_TOOLS)
  zorvac_package(tools zorvac-tools devel
                 "This package has zorvac-mktrace, which lets tracebacks name lines.")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
endif()

# What packages of programs that use the library are told to depend on: the shlibs file by library,
# the symbols file by exported name.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(symbols "libzorvac.so.${PROJECT_VERSION_MAJOR} ${runtime_package} #MINVER#\n")
foreach(export IN LISTS exports)
  string(REGEX REPLACE "^[a-z]+ +([^ ]+).*" " \\1@Base 5.0.0\n" line "${export}")
  string(APPEND symbols "${line}")
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/symbols @ONLY CONTENT "${symbols}")
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers
                                               ${PROJECT_BINARY_DIR}/symbols)
include(CPack)
