# proxymanager_on_demand(TARGET SOURCE DEPENDENCY SONAME): adds an object that only programs link.
# Its functions replace the functions of the library SONAME, and map that library at their first
# call. Other libraries, and SONAME itself, do not see these functions.
#
# The source contains the name of the library. So the configuration fails if the build finds a
# variant with another name, for example a libcurl with GnuTLS: the program could not map it.
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
