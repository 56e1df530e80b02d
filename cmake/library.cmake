# The library: its object files, the shared and the static library made from them, and a function
# that links further flavours of the shared library, for packages and benchmarks.

# What is shipped does not contain the names of the folders that it was built in: the same sources
# make the same bytes anywhere. Debuggers find the sources from the project's folder.
add_library(zorvac_reproducible INTERFACE)
target_compile_options(zorvac_reproducible INTERFACE
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)

# How our own code is compiled. A program must be able to replace calls between exported routines by
# its own definitions: g++ allows that in position-independent code, clang only with an option. The
# code must need no C++ run-time library and no unwinder, and no multiplication and addition may be
# fused. -fno-ipa-icf: of two exported routines with the same code, g++ would make one a jump to the
# other. Objects are marked as fit for shadow stacks, which costs nothing;
# docs/decisions/control-flow.md says why not also for branch tracking.
add_library(zorvac_code INTERFACE)
target_include_directories(zorvac_code INTERFACE ${PROJECT_SOURCE_DIR}/src
                                                 ${PROJECT_SOURCE_DIR}/include)
target_compile_options(zorvac_code INTERFACE -fcf-protection=return
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  $<$<COMPILE_LANGUAGE:CXX>:-fvisibility=hidden -fsemantic-interposition -fno-plt>
  $<$<COMPILE_LANGUAGE:CXX>:-ffp-contract=off>
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-ipa-icf>)
target_link_libraries(zorvac_code INTERFACE zorvac_warnings zorvac_reproducible)
if(ZORVAC_COVERAGE)
  target_compile_options(zorvac_code INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:--coverage\;-fprofile-update=atomic>)
endif()

add_library(zorvac_common OBJECT ${ZORVAC_COMMON_SOURCES})
target_link_libraries(zorvac_common PRIVATE zorvac_code)

# zorvac_identification_objects(<target> <vendor>): the objects that use the vendor rule.
function(zorvac_identification_objects target vendor)
  add_library(${target} OBJECT ${ZORVAC_IDENTIFICATION_SOURCES})
  target_link_libraries(${target} PRIVATE zorvac_code)
  target_compile_definitions(${target} PRIVATE ZORVAC_CPU_VENDOR="${vendor}")
endfunction()
zorvac_identification_objects(zorvac_identification ${ZORVAC_CPU_VENDOR})

# The linker's export map, made from the list of exported names.
set(exports_list ${PROJECT_SOURCE_DIR}/abi/exports.txt)
set(export_map ${PROJECT_BINARY_DIR}/exports.map)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${exports_list})
file(STRINGS ${exports_list} exports REGEX "^(function|data) ")
set(export_names "")
foreach(export IN LISTS exports)
  string(REGEX REPLACE "^[a-z]+ +[^ ]+ +([^ ]+).*" "\\1" name "${export}")
  string(APPEND export_names "    ${name};\n")
endforeach()
file(CONFIGURE OUTPUT ${export_map} @ONLY CONTENT "{\n  global:\n@export_names@  local: *;\n};\n")

# The C driver links the library. CMake must add nothing for the C++ objects in it.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

# zorvac_shared_library(<target> <vendor objects>): links one flavour. Addresses are bound when it
# is loaded, so that no resolver ever runs between a caller and its worker. The vendor objects come
# first, so that the data that the load-time initialiser writes is on a page to which relocation has
# already written.
#
# The linker marks the library as fit for shadow stacks even if the C library's start files are not
# marked. Those only call and return.
function(zorvac_shared_library target identification)
  add_library(${target} SHARED $<TARGET_OBJECTS:${identification}> $<TARGET_OBJECTS:zorvac_common>)
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME zorvac VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINKER_LANGUAGE C LINK_DEPENDS ${export_map})
  target_link_options(${target} PRIVATE -static-libgcc LINKER:--version-script=${export_map}
    LINKER:-z,relro,-z,now,-z,noexecstack,-z,text,-z,shstk)
  if(NOT ZORVAC_SANITIZE)  # a sanitizer's run-time library comes with the program
    target_link_options(${target} PRIVATE LINKER:-z,defs)
  endif()
  target_include_directories(${target} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # What zorvac/quad.hpp calls. By its file: as a target, an archive of C++ objects would have CMake
  # link C programs with the C++ run-time library.
  target_link_libraries(${target} INTERFACE
    $<BUILD_INTERFACE:$<TARGET_FILE:zorvac_quad>>
    $<INSTALL_INTERFACE:$<INSTALL_PREFIX>/${CMAKE_INSTALL_LIBDIR}/libzorvac_quad.a>)
  add_dependencies(${target} zorvac_quad)
endfunction()
zorvac_shared_library(zorvac zorvac_identification)

# In the archive, names that are plain words are local to their source, so that a program may use
# them itself. Names that refer to a chosen version of the C library (.symver) become plain names,
# because a static program has no versions.
add_library(zorvac_static STATIC $<TARGET_OBJECTS:zorvac_identification>
                                 $<TARGET_OBJECTS:zorvac_common> $<TARGET_OBJECTS:zorvac_quad>)
set_target_properties(zorvac_static PROPERTIES OUTPUT_NAME zorvac LINKER_LANGUAGE C)
set(plain_words work_pool headerP Last_PoolP last_pool_num Array_size Array_size_calloc
    _i_pool_cr_sec vrt_msgtab c_feature_names)
add_custom_command(TARGET zorvac_static POST_BUILD VERBATIM COMMAND ${CMAKE_OBJCOPY}
  --enable-deterministic-archives "--localize-symbol=$<JOIN:${plain_words},;--localize-symbol=>"
  --redefine-sym dladdr@GLIBC_2.2.5=dladdr
  --redefine-sym __libc_single_threaded@=__libc_single_threaded
  $<TARGET_FILE:zorvac_static> COMMAND_EXPAND_LISTS)
target_include_directories(zorvac_static INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

# The same objects for unit tests and benchmarks that use what the shared library hides.
add_library(zorvac_internal INTERFACE)
target_sources(zorvac_internal INTERFACE $<TARGET_OBJECTS:zorvac_common>
                                         $<TARGET_OBJECTS:zorvac_identification>)
target_include_directories(zorvac_internal INTERFACE ${PROJECT_SOURCE_DIR}/src
                                                     ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(zorvac_internal INTERFACE ZORVAC_CPU_VENDOR="${ZORVAC_CPU_VENDOR}")

# A flavour whose fast variants run on processors of every vendor: packaged, and for benchmarks.
zorvac_identification_objects(zorvac_identification_any any)
zorvac_shared_library(zorvac_any zorvac_identification_any)
set_target_properties(zorvac_any PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/any-vendor)
if(NOT ZORVAC_INSTALL AND NOT ZORVAC_BENCH)
  set_target_properties(zorvac_any zorvac_identification_any PROPERTIES EXCLUDE_FROM_ALL ON)
endif()

add_library(zorvac::zorvac ALIAS zorvac)
add_library(zorvac::zorvac_static ALIAS zorvac_static)
