# proxymanager_on_demand(TARGET SOURCE DEPENDENCY SONAME): an object for programs only. Its functions
# replace those of the library SONAME, and map that library at their first call. They are not visible to
# other libraries, and not to SONAME itself.
#
# The name of the library is in the source. Others of its kind, such as a libcurl on GnuTLS, have
# another name, and the program would not find the one that it was built with.
function(proxymanager_on_demand target source dependency soname)
  foreach(found IN LISTS ${dependency}_LINK_LIBRARIES)
    if(found MATCHES "/lib${dependency}[^/]*\\.so$")
      execute_process(COMMAND "${CMAKE_OBJDUMP}" -p "${found}" OUTPUT_VARIABLE dynamic ERROR_QUIET)
      if(dynamic MATCHES "SONAME +([^\n ]+)" AND NOT CMAKE_MATCH_1 STREQUAL soname)
        message(FATAL_ERROR "${found} is ${CMAKE_MATCH_1}; ${source} maps ${soname}")
      endif()
    endif()
  endforeach()
  add_library(${target} OBJECT ${source})
  target_include_directories(${target} PRIVATE "${proxymanagerd_SOURCE_DIR}")
  target_compile_options(${target} PRIVATE -fvisibility=hidden)
  target_link_libraries(${target} PRIVATE PkgConfig::${dependency} proxymanager_warnings)
endfunction()
