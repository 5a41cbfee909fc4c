# proxymanager_library(NAME SOURCES a.cpp ... PUBLIC lib ... PRIVATE lib ...): adds the library of a
# folder. cmake/proxymanager.cmake combines it with the other libraries.
function(proxymanager_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;PUBLIC;PRIVATE")
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC "${proxymanagerd_SOURCE_DIR}")
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC}
    PRIVATE ${arg_PRIVATE} $<BUILD_INTERFACE:proxymanager_warnings>)
  set_property(GLOBAL APPEND PROPERTY proxymanager_libraries ${name})
endfunction()
