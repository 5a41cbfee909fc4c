# `proxymanager`: everything except `main`, as one library, for the daemon, the tests and other
# projects that add this tree. A target that links it also gets the include folder and the
# dependencies.
#
# It consists of the folders' objects, not of their archives: folders may call each other, and one
# archive needs no link order. It contains neither the worker's script engine, which the daemon must
# never map, nor the code of the command line client.
get_property(proxymanager_gathered GLOBAL PROPERTY proxymanager_libraries)
list(FILTER proxymanager_gathered EXCLUDE REGEX "^proxymanager_(script_engine|client.*)$")

add_library(proxymanager STATIC)
# If an archive contains only objects of other targets, CMake cannot detect the language of its
# linker.
set_target_properties(proxymanager PROPERTIES LINKER_LANGUAGE CXX)
target_compile_features(proxymanager PUBLIC cxx_std_20)
target_include_directories(proxymanager PUBLIC "${proxymanagerd_SOURCE_DIR}")
foreach(folder ${proxymanager_gathered})
  target_sources(proxymanager PRIVATE $<TARGET_OBJECTS:${folder}>)
  get_target_property(dependencies ${folder} LINK_LIBRARIES)
  list(FILTER dependencies INCLUDE REGEX "^(PkgConfig|Threads)::")
  target_link_libraries(proxymanager PUBLIC ${dependencies})
endforeach()
get_property(device_libraries GLOBAL PROPERTY proxymanager_device_libraries)
target_link_libraries(proxymanager PUBLIC Threads::Threads ${device_libraries})
