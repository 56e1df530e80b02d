# The library: its object files, the shared and the static library made of them, and a function
# that links further flavours of the shared library for tests and benchmarks.

# What is shipped tells nothing of the folders that it was built in: the same sources make the same
# bytes anywhere. Debuggers find the sources from the project's folder.
add_library(zorvac_reproducible INTERFACE)
target_compile_options(zorvac_reproducible INTERFACE
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=.)

# How our own code is compiled. Calls between exported routines must stay replaceable by a program's
# own definitions: g++ sees to that in position-independent code, clang only when told. No C++
# run-time library and no unwinder may creep in, and no multiply and add may be fused. g++ would
# make one of two exported routines of the same code a jump into the other. Objects are marked fit
# for shadow stacks, which costs nothing; docs/decisions/control-flow.md tells why for no more.
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

# zorvac_identification_objects(<target> <vendor>): the objects that the vendor rule enters into.
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

# The C driver links the library, and CMake is to add nothing for the C++ objects in it.
set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")

# zorvac_shared_library(<target> <vendor objects>): links one flavour. Addresses are bound when it
# is loaded, so that no resolver ever runs between a caller and its worker. What the load-time
# initialiser writes comes first of the data, on a page that relocation has written to already.
#
# The linker marks the library fit for shadow stacks even where the C library's start files, which
# just call and return, are not marked.
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
  target_link_libraries(${target} INTERFACE zorvac_quad)  # what zorvac/quad.hpp calls
endfunction()
zorvac_shared_library(zorvac zorvac_identification)

# In the archive, what has a plain word for a name is local to its one source: a program may use the
# name itself. And what is asked of the C library in a version of our choice (.symver) has its plain
# name, as a static program has no other.
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

# The same objects for unit tests and benchmarks, which reach what the shared library hides.
add_library(zorvac_internal INTERFACE)
target_sources(zorvac_internal INTERFACE $<TARGET_OBJECTS:zorvac_common>
                                         $<TARGET_OBJECTS:zorvac_identification>)
target_include_directories(zorvac_internal INTERFACE ${PROJECT_SOURCE_DIR}/src
                                                     ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(zorvac_internal INTERFACE ZORVAC_CPU_VENDOR="${ZORVAC_CPU_VENDOR}")

# A flavour whose fast variants are reachable on every processor: packaged, and for benchmarks.
zorvac_identification_objects(zorvac_identification_any any)
zorvac_shared_library(zorvac_any zorvac_identification_any)
set_target_properties(zorvac_any PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/any-vendor)
if(NOT ZORVAC_INSTALL AND NOT ZORVAC_BENCH)
  set_target_properties(zorvac_any zorvac_identification_any PROPERTIES EXCLUDE_FROM_ALL ON)
endif()

add_library(zorvac::zorvac ALIAS zorvac)
add_library(zorvac::zorvac_static ALIAS zorvac_static)
