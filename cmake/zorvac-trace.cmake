# zorvac_add_trace(<target>...): gives the executables and shared libraries a .trace section when
# they are linked, so that a traceback through them names routines, files and lines. They are
# compiled with debug information for this; stripping it afterwards leaves the section. The targets
# must be of the calling folder.
function(zorvac_add_trace)
  if(TARGET zorvac-mktrace)  # in the library's own tree
    set(tool zorvac-mktrace)
  else()
    find_program(ZORVAC_MKTRACE zorvac-mktrace HINTS ${zorvac_bin_dir})
    if(NOT ZORVAC_MKTRACE)
      message(FATAL_ERROR "zorvac_add_trace needs zorvac-mktrace, which is not installed")
    endif()
    set(tool ${ZORVAC_MKTRACE})
  endif()
  foreach(target IN LISTS ARGN)
    target_compile_options(${target} PRIVATE -g)
    add_custom_command(TARGET ${target} POST_BUILD
                       COMMAND ${tool} $<TARGET_FILE:${target}> VERBATIM)
  endforeach()
endfunction()
