# The libraries that this tree links. Each is an imported target, which projects that add this tree
# can use, too. Their packages are named once, in packaging/debian/control.
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
if(NOT TARGET Threads::Threads)
  find_package(Threads REQUIRED)
  set_target_properties(Threads::Threads PROPERTIES IMPORTED_GLOBAL TRUE)
endif()

foreach(dependency
    "dbusxx;dbus-c++-1" "curl;libcurl" "crypto;libcrypto" "ssl;libssl" "seccomp;libseccomp" "cares;libcares"
    "idn2;libidn2" "psl;libpsl" "bsd;libbsd" "systemd;libsystemd" "unwind;libunwind")
  list(GET dependency 0 name)
  list(GET dependency 1 module)
  # SYSTEM: dbus-c++ names its headers with -I, and they would not compile without warnings.
  pkg_check_modules(${name} REQUIRED IMPORTED_TARGET GLOBAL ${module})
  set_target_properties(PkgConfig::${name} PROPERTIES
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${${name}_INCLUDE_DIRS}")
endforeach()

# libunwind has the unwinder's functions under the names of the compiler's own, and needs
# descriptors to throw. The compiler's library comes first, so that it handles exceptions.
set_property(TARGET PkgConfig::unwind PROPERTY INTERFACE_LINK_LIBRARIES
  gcc_s ${unwind_LINK_LIBRARIES})
