# What CPack does after it has installed the components and before it packs them.

# One time for everything in the packages, including what CPack writes.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND date --utc --date ${CPACK_ZORVAC_DATE} +%s
    OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(ENV{SOURCE_DATE_EPOCH} ${epoch})
endif()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(folder ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component})

  # CPack strips programs and shared libraries, but not archives.
  file(GLOB_RECURSE archives ${folder}/*.a)
  foreach(archive IN LISTS archives)
    execute_process(COMMAND strip --strip-debug --enable-deterministic-archives ${archive}
                    COMMAND_ERROR_IS_FATAL ANY)
  endforeach()

  # What the programs and libraries of the component depend on. (CPack could find this itself, but
  # would then also call ldconfig, for which there is a trigger.)
  file(GLOB linked LIST_DIRECTORIES OFF ${folder}/usr/bin/* ${folder}/usr/lib/*/*.so.*.*)
  if(linked)
    list(TRANSFORM linked PREPEND -e)
    file(WRITE ${CPACK_TEMPORARY_DIRECTORY}/debian/control
         "Source: libzorvac\n\nPackage: libzorvac\nArchitecture: any\n")
    execute_process(COMMAND dpkg-shlibdeps --warnings=0 -O ${linked}
      WORKING_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY} OUTPUT_VARIABLE depends
      OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE "^shlibs:Depends=" "" CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  endif()

  execute_process(
    COMMAND find ${folder} -exec touch --no-dereference --date @$ENV{SOURCE_DATE_EPOCH} {} +
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
