# proxymanager_quickjs: the JavaScript engine, for the script worker alone.
#
# In this order: the folder the build was told (-DPROXYMANAGER_QUICKJS_ROOT=, laid out as a prefix),
# an installed package, the distribution's source package of a later release, built once per machine
# by packaging/quickjs/build_quickjs.sh. The engine is always a plain build, also under sanitizers.
include_guard()

set(PROXYMANAGER_QUICKJS_ROOT "" CACHE PATH "Prefix of a QuickJS to use, instead of looking for one")

# Sets ${result} to TRUE where quickjs.h and libquickjs are found; further arguments go to find_*.
function(proxymanager_find_quickjs result)
  unset(PROXYMANAGER_QUICKJS_INCLUDE CACHE)
  unset(PROXYMANAGER_QUICKJS_LIBRARY CACHE)
  find_path(PROXYMANAGER_QUICKJS_INCLUDE quickjs.h PATH_SUFFIXES include/quickjs quickjs ${ARGN})
  find_library(PROXYMANAGER_QUICKJS_LIBRARY quickjs PATH_SUFFIXES lib/quickjs quickjs ${ARGN})
  mark_as_advanced(PROXYMANAGER_QUICKJS_INCLUDE PROXYMANAGER_QUICKJS_LIBRARY)
  if(PROXYMANAGER_QUICKJS_INCLUDE AND PROXYMANAGER_QUICKJS_LIBRARY)
    set(${result} TRUE PARENT_SCOPE)
  else()
    set(${result} FALSE PARENT_SCOPE)
  endif()
endfunction()

if(PROXYMANAGER_QUICKJS_ROOT)
  proxymanager_find_quickjs(quickjs_found PATHS "${PROXYMANAGER_QUICKJS_ROOT}" NO_DEFAULT_PATH
    NO_CMAKE_FIND_ROOT_PATH)
  if(NOT quickjs_found)
    message(FATAL_ERROR "No quickjs.h and libquickjs under PROXYMANAGER_QUICKJS_ROOT="
                        "${PROXYMANAGER_QUICKJS_ROOT}")
  endif()
else()
  proxymanager_find_quickjs(quickjs_found)
endif()

if(NOT quickjs_found)
  message(STATUS "QuickJS is not installed; its source package is used")
  set(quickjs_environment "")
  if(CMAKE_CROSSCOMPILING)
    set(quickjs_environment "${CMAKE_COMMAND}" -E env "CC=${CMAKE_C_COMPILER}" "AR=${CMAKE_AR}"
      "PROXYMANAGER_QUICKJS_FLAGS=--sysroot=${CMAKE_SYSROOT} ${CMAKE_C_FLAGS}")
  endif()
  # Its error stream is not captured: the steps show as they happen.
  execute_process(
    COMMAND ${quickjs_environment}
      "${CMAKE_CURRENT_LIST_DIR}/../packaging/quickjs/build_quickjs.sh"
    OUTPUT_VARIABLE quickjs_root OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE quickjs_failed)
  if(quickjs_failed)
    message(FATAL_ERROR "QuickJS could not be built; install the package libquickjs, or give a "
                        "prefix with -DPROXYMANAGER_QUICKJS_ROOT=")
  endif()
  proxymanager_find_quickjs(quickjs_found PATHS "${quickjs_root}" NO_DEFAULT_PATH
    NO_CMAKE_FIND_ROOT_PATH)
endif()

message(STATUS "QuickJS: ${PROXYMANAGER_QUICKJS_LIBRARY}")
find_package(Threads REQUIRED)
add_library(proxymanager_quickjs UNKNOWN IMPORTED GLOBAL)
set_target_properties(proxymanager_quickjs PROPERTIES
  IMPORTED_LOCATION "${PROXYMANAGER_QUICKJS_LIBRARY}"
  INTERFACE_INCLUDE_DIRECTORIES "${PROXYMANAGER_QUICKJS_INCLUDE}"
  INTERFACE_LINK_LIBRARIES "Threads::Threads;m")
