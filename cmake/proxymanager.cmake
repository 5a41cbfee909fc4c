# `proxymanager`: everything but `main`, as one library, for the daemon, the tests and other projects
# that add this tree. Whoever links it gets the include root and the dependencies with it.
#
# It is made of the folders' objects, not of their archives: folders may call each other, and one
# archive has no order to get wrong. The script worker is a program of its own and not in it.
set(proxymanager_folders "")
foreach(folder log process netservice bus pac_engine records domain pac fetcher dbus service)
  if(TARGET proxymanager_${folder})
    list(APPEND proxymanager_folders proxymanager_${folder})
  endif()
endforeach()

add_library(proxymanager STATIC)
foreach(folder ${proxymanager_folders})
  target_sources(proxymanager PRIVATE $<TARGET_OBJECTS:${folder}>)
endforeach()
# Archives made of foreign objects alone do not tell CMake which linker they need.
set_target_properties(proxymanager PROPERTIES LINKER_LANGUAGE CXX)
target_compile_features(proxymanager PUBLIC cxx_std_20)
target_include_directories(proxymanager PUBLIC "${proxymanagerd_SOURCE_DIR}")
target_link_libraries(proxymanager PUBLIC
  PkgConfig::dbusxx PkgConfig::curl PkgConfig::crypto PkgConfig::seccomp PkgConfig::cares
  PkgConfig::psl PkgConfig::bsd PkgConfig::systemd PkgConfig::unwind Threads::Threads)
