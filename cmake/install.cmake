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
# Replaces the other flavour, and so is installed only if its component is asked for.
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

# The prefix is relative to the file, so it stays right wherever a package puts the file.
file(RELATIVE_PATH pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/zorvac.pc.in ${PROJECT_BINARY_DIR}/zorvac.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zorvac.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)

# Manual pages and the changelog are installed compressed, as Debian's policy requires. They are
# compressed without a time, so that the same sources make the same packages.
#
# zorvac_compress(<file in the project> <its copy> [<command that writes what is compressed>...])
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

# The Debian packages. Each component is one row here, and its files are installed under its name.
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
#                [<option of install>...])
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
# The date of the last release. All files in a package get this date.
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md released REGEX "^## " LIMIT_COUNT 1)
string(REGEX REPLACE ".*\\((.*)\\)" "\\1" CPACK_ZORVAC_DATE "${released}")

# A package of the library says what programs that use it must depend on: for the library in the
# shlibs file, for each exported name in the symbols file. Both name the runtime package, which the
# flavour for any vendor can replace.
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
               "This package has the headers, the static libraries and the manual pages.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION}), libc6-dev")
if(TARGET zorvac-mktrace AND ZORVAC_TOOLS)
  zorvac_package(tools zorvac-tools devel
                 "This package has zorvac-mktrace, which lets tracebacks name lines.")
endif()

# For programs of other compilers: one library for each purpose, and the start-up check. The name of
# a library's package comes from its SONAME. The files for building programs are in the development
# package.
#
# zorvac_pkg_config(<name> <description> <Cflags> <Libs>)
function(zorvac_pkg_config name description cflags libs)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/zorvac-bridge.pc.in
                 ${PROJECT_BINARY_DIR}/zorvac-${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/zorvac-${name}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()

# zorvac_bridge_library(<name> <package name> <purpose> <Libs>): the target zorvac_<name>, and
# zorvac_<name>_static where there is one, become zorvac::<name> and zorvac::<name>_static.
macro(zorvac_bridge_library name package purpose libs)
  if(TARGET zorvac_${name})
    install(TARGETS zorvac_${name} EXPORT zorvac-targets
      LIBRARY COMPONENT ${name} NAMELINK_COMPONENT dev)
    foreach(flavour IN ITEMS ${name} ${name}_static)
      if(TARGET zorvac_${flavour})
        set_target_properties(zorvac_${flavour} PROPERTIES EXPORT_NAME ${flavour})
        # The options for our own code do not matter to programs that link it.
        get_target_property(linked zorvac_${flavour} INTERFACE_LINK_LIBRARIES)
        list(FILTER linked EXCLUDE REGEX "zorvac_(code|warnings|reproducible)|NOTFOUND")
        set_target_properties(zorvac_${flavour} PROPERTIES INTERFACE_LINK_LIBRARIES "${linked}")
      endif()
    endforeach()
    if(TARGET zorvac_${name}_static)
      install(TARGETS zorvac_${name}_static EXPORT zorvac-targets ARCHIVE COMPONENT dev)
    endif()
    zorvac_pkg_config(${name} "${purpose}" "" "-L\${libdir} ${libs}")

    get_target_property(soversion zorvac_${name} SOVERSION)
    set(control ${PROJECT_BINARY_DIR}/control-${name})
    file(WRITE ${control}/shlibs
         "libzorvac_${name} ${soversion} ${package} (>= ${PROJECT_VERSION})\n")
    file(COPY ${PROJECT_BINARY_DIR}/triggers DESTINATION ${control})
    zorvac_package(${name} ${package} libs
                   "This package has a library for programs of other compilers:\n${purpose}.")
    string(TOUPPER ${name} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${control}/triggers ${control}/shlibs)
    string(APPEND CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ", ${package} (= ${PROJECT_VERSION})")
  endif()
endmacro()
zorvac_bridge_library(float128 libzorvac-float128-1
  "the compiler's own binary128 arithmetic, faster" "-lzorvac_float128")
zorvac_bridge_library(crash libzorvac-crash1
  "what happened and the traceback, printed on a fatal signal"
  "-Wl,--push-state,--no-as-needed -lzorvac_crash -Wl,--pop-state")
if(TARGET zorvac_level)
  set(start ${PROJECT_BINARY_DIR}/bridge/start)
  # gcc looks for a specs file in lib only, for the other files also in the architecture's folder.
  install(FILES ${start}/zorvac.specs DESTINATION lib COMPONENT dev)
  install(FILES ${start}/zorvac/level.h ${start}/zorvac/level.o ${start}/zorvac/level-shared.o
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/zorvac COMPONENT dev)
  set(level "-B\${libdir}/ -B\${prefix}/lib/ -specs=zorvac.specs")
  zorvac_pkg_config(level "a check before a program's first constructor" "${level}" "${level}")
endif()
zorvac_compress(docs/man/zorvac-bridge.7 zorvac-bridge.7.gz)
if(TARGET zorvac_crash)
  zorvac_compress(docs/man/zorvac_crash.7 zorvac_crash.7.gz)
  install(FILES ${PROJECT_BINARY_DIR}/zorvac_crash.7.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
          COMPONENT dev)
endif()
install(FILES ${PROJECT_BINARY_DIR}/zorvac-bridge.7.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
        COMPONENT dev)
include(CPack)
