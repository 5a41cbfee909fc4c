# The parts of base/, engine/host/ and platform/ that a device may replace.
#
# A part is the functions of one header. PROXYMANAGER_DEVICE is a folder of the device's maker. Its
# CMakeLists.txt lists the replaced parts and their sources:
#
#   proxymanager_replace(dhcp_info SOURCES own_lease.cpp LIBRARIES PkgConfig::ownservice)
#
# These sources are then compiled instead of this tree's sources, and the libraries of the replaced
# part are not linked. So a function never has two definitions, and if the replacement lacks a
# function, the link fails. docs/integration.md describes the task of each part.
set(PROXYMANAGER_DEVICE "" CACHE PATH "A folder whose CMakeLists.txt replaces parts of this tree")

# proxymanager_replace(PART SOURCES a.cpp ... LIBRARIES lib ...): in the device's CMakeLists.txt.
# The sources are in the same folder. They can include this tree's headers, and are compiled with
# this tree's warnings.
function(proxymanager_replace part)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBRARIES")
  if(NOT arg_SOURCES OR arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "proxymanager_replace(PART SOURCES a.cpp ... [LIBRARIES lib ...])")
  endif()
  list(TRANSFORM arg_SOURCES PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/" REGEX "^[^/]")
  set_property(GLOBAL APPEND PROPERTY proxymanager_replaced ${part})
  set_property(GLOBAL PROPERTY proxymanager_sources_of_${part} ${arg_SOURCES})
  set_property(GLOBAL PROPERTY proxymanager_libraries_of_${part} ${arg_LIBRARIES})
  set_property(GLOBAL APPEND PROPERTY proxymanager_device_libraries ${arg_LIBRARIES})
endfunction()

# proxymanager_part(FOLDER_LIBRARY PART SOURCES a.cpp ... LIBRARIES lib ...): adds this tree's
# sources of the part and their libraries, unless the device replaces the part.
function(proxymanager_part library part)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "SOURCES;LIBRARIES")
  set_property(GLOBAL APPEND PROPERTY proxymanager_parts ${part})
  get_property(replaced GLOBAL PROPERTY proxymanager_replaced)
  if(part IN_LIST replaced)
    get_property(arg_SOURCES GLOBAL PROPERTY proxymanager_sources_of_${part})
    get_property(arg_LIBRARIES GLOBAL PROPERTY proxymanager_libraries_of_${part})
    message(STATUS "The device has a ${part} of its own: ${arg_SOURCES}")
  endif()
  target_sources(${library} PRIVATE ${arg_SOURCES})
  target_link_libraries(${library} PRIVATE ${arg_LIBRARIES})
endfunction()

# Call this function when all parts are known. Without this check, a misspelt name would have no
# effect, and the build would silently use this tree's own part.
function(proxymanager_check_replaced)
  get_property(parts GLOBAL PROPERTY proxymanager_parts)
  get_property(replaced GLOBAL PROPERTY proxymanager_replaced)
  list(REMOVE_ITEM replaced ${parts})
  if(replaced)
    list(JOIN parts ", " parts)
    message(FATAL_ERROR "${PROXYMANAGER_DEVICE} replaces ${replaced}; the parts are ${parts}")
  endif()
endfunction()

if(PROXYMANAGER_DEVICE)
  add_subdirectory("${PROXYMANAGER_DEVICE}" device)
endif()
