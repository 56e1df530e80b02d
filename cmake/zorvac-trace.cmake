# zorvac_add_trace(<target>... [DEMANGLE full|short]): gives the executables and shared libraries a
# .trace section when they are linked, so that a traceback through them names routines, files and
# lines. They are compiled with debug information for this. The targets must belong to the calling
# folder.
#
# DEMANGLE writes the names of C++ routines as in the source: full, or the last component only.
#
# GNU strip keeps the section, and so does `cmake --install --strip`. Other strip tools that are run
# by hand need --keep-section=.trace.
function(zorvac_add_trace)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" DEMANGLE "")
  if(DEFINED arg_DEMANGLE AND NOT arg_DEMANGLE MATCHES "^(full|short)$"
     OR DEMANGLE IN_LIST arg_KEYWORDS_MISSING_VALUES)
    message(FATAL_ERROR "zorvac_add_trace: DEMANGLE is full or short")
  endif()
  if(TARGET zorvac-mktrace)  # in the library's own tree
    set(tool zorvac-mktrace)
  else()
    find_program(ZORVAC_MKTRACE zorvac-mktrace HINTS ${zorvac_bin_dir})
    if(NOT ZORVAC_MKTRACE)
      message(FATAL_ERROR "zorvac_add_trace needs zorvac-mktrace, which is not installed")
    endif()
    set(tool ${ZORVAC_MKTRACE})
  endif()
  foreach(target IN LISTS arg_UNPARSED_ARGUMENTS)
    target_compile_options(${target} PRIVATE -g)
    add_custom_command(TARGET ${target} POST_BUILD VERBATIM
                       COMMAND ${tool} $<$<BOOL:${arg_DEMANGLE}>:--demangle=${arg_DEMANGLE}>
                               $<TARGET_FILE:${target}> COMMAND_EXPAND_LISTS)
  endforeach()
  zorvac_keep_trace()
endfunction()

# Installing with --strip runs the tool in CMAKE_STRIP, without options. If that tool would remove
# the section, the calling folder uses a script instead, which adds the option to keep the section.
function(zorvac_keep_trace)
  execute_process(COMMAND "${CMAKE_STRIP}" --version OUTPUT_VARIABLE version ERROR_QUIET)
  if(CMAKE_STRIP AND NOT version MATCHES "^GNU strip")
    set(script ${CMAKE_CURRENT_BINARY_DIR}/CMakeFiles/zorvac-strip)
    file(CONFIGURE OUTPUT ${script} @ONLY
         CONTENT "#!/bin/sh\nexec '@CMAKE_STRIP@' --keep-section=.trace \"$@\"\n")
    file(CHMOD ${script} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
                                     GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    # CMake reads the variable at the end of the folder. EVAL puts the path into the call now.
    cmake_language(EVAL CODE "cmake_language(DEFER CALL set CMAKE_STRIP [[${script}]])")
  endif()
endfunction()
