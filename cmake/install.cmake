# Installed files, the pkg-config file, the CMake package and the Debian packages.
include(CMakePackageConfigHelpers)

# The name that -lzorvac looks for is no link to the library but a linker script, as the C library's
# is: it names the small archive for zorvac/quad.hpp, too. A linker looks for both in its folder.
install(TARGETS zorvac EXPORT zorvac-targets LIBRARY COMPONENT runtime NAMELINK_SKIP)
install(TARGETS zorvac_static zorvac_quad EXPORT zorvac-targets ARCHIVE COMPONENT dev)
set(script ${PROJECT_BINARY_DIR}/linker-script/libzorvac.so)
file(WRITE ${script}
     "/* GNU ld script */\nINPUT(libzorvac.so.${PROJECT_VERSION_MAJOR} libzorvac_quad.a)\n")
install(FILES ${script} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zorvac TYPE INCLUDE COMPONENT dev)
# In the place of the other flavour, and so only where its component is asked for.
install(TARGETS zorvac_any LIBRARY COMPONENT runtime_any NAMELINK_SKIP EXCLUDE_FROM_ALL)

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

# Manual pages and the changelog are installed compressed as Debian's policy asks, without a time,
# so that the same sources make the same packages: zorvac_compress(<file in the project> <its copy>
# [<command that writes what is compressed>...])
function(zorvac_compress from to)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${from})
  set(writer ${ARGN})
  if(NOT writer)
    set(writer cat)
  endif()
  execute_process(COMMAND ${writer} ${PROJECT_SOURCE_DIR}/${from} COMMAND gzip -9nc
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/${to} COMMAND_ERROR_IS_FATAL ANY)
endfunction()
zorvac_compress(docs/man/zorvac.7 zorvac.7.gz)
install(FILES ${PROJECT_BINARY_DIR}/zorvac.7.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
        COMPONENT dev)
if(TARGET zorvac-mktrace AND ZORVAC_TOOLS)
  install(TARGETS zorvac-mktrace RUNTIME COMPONENT tools)
  zorvac_compress(tools/zorvac-mktrace.1 zorvac-mktrace.1.gz)
  install(FILES ${PROJECT_BINARY_DIR}/zorvac-mktrace.1.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()

# The Debian packages. A component is one row here; its files are installed under
# its name.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The libzorvac developers")
set(CPACK_PACKAGE_CONTACT "The libzorvac developers <libzorvac@localhost>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL "")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package.cmake)
set(description "It identifies the processor, checks at start that a program may run on
it, copies and fills memory, allocates from pools, computes in binary128
and 128-bit integers, and multiplies matrices. Compilers emit the calls.")

# zorvac_package(<component> <package name> <section> <what this package holds>
#                [<option of install>])
macro(zorvac_package component name section holds)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${description}\n\n${holds}")
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright ${PROJECT_BINARY_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component} ${ARGN})
endmacro()
zorvac_compress(CHANGELOG.md changelog.gz
                awk -v maintainer=${CPACK_PACKAGE_CONTACT}
                -f ${PROJECT_SOURCE_DIR}/cmake/changelog.awk)
# The date of the last release, which all files in a package have.
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md released REGEX "^## " LIMIT_COUNT 1)
string(REGEX REPLACE ".*\\((.*)\\)" "\\1" CPACK_ZORVAC_DATE "${released}")

# A package of the library gives what programs that use it are told to depend on: by library in the
# shlibs file, by exported name in the symbols file. Both name the runtime package, whose place the
# flavour for any vendor can take.
set(runtime_package libzorvac${PROJECT_VERSION_MAJOR})
set(symbols "libzorvac.so.${PROJECT_VERSION_MAJOR} ${runtime_package} #MINVER#\n")
foreach(export IN LISTS exports)
  string(REGEX REPLACE "^[a-z]+ +([^ ]+) +([^ ]+).*" " \\2@Base \\1\n" line "${export}")
  string(APPEND symbols "${line}")
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/symbols @ONLY CONTENT "${symbols}")
file(WRITE ${PROJECT_BINARY_DIR}/shlibs
     "libzorvac ${PROJECT_VERSION_MAJOR} ${runtime_package} (>= ${PROJECT_VERSION})\n")
file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
set(control triggers shlibs symbols)
list(TRANSFORM control PREPEND ${PROJECT_BINARY_DIR}/)

zorvac_package(runtime ${runtime_package} libs "This package has the shared library.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control})
if(NOT ZORVAC_CPU_VENDOR STREQUAL "any")
  zorvac_package(runtime_any ${runtime_package}-any libs
                 "This package has the shared library whose fast variants are for every processor."
                 EXCLUDE_FROM_ALL)
  set(CPACK_DEBIAN_RUNTIME_ANY_PACKAGE_CONTROL_EXTRA ${control})
  set(CPACK_DEBIAN_RUNTIME_ANY_PACKAGE_PROVIDES "${runtime_package} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_RUNTIME_ANY_PACKAGE_CONFLICTS ${runtime_package})
  set(CPACK_DEBIAN_RUNTIME_ANY_PACKAGE_REPLACES ${runtime_package})
endif()
zorvac_package(dev libzorvac-dev libdevel
               "This package has the headers, the static library and the manual page.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION}), libc6-dev")
if(TARGET zorvac-mktrace AND ZORVAC_TOOLS)
  zorvac_package(tools zorvac-tools devel
                 "This package has zorvac-mktrace, which lets tracebacks name lines.")
endif()
include(CPack)
