# The libraries that this tree links. Each is an imported target, which projects that add this tree
# can use, too. Only packaging/debian/control names their packages.
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
  # SYSTEM: the headers of dbus-c++ cause warnings, and its pkg-config file names their folder with
  # -I.
  pkg_check_modules(${name} REQUIRED IMPORTED_TARGET GLOBAL ${module})
  set_target_properties(PkgConfig::${name} PROPERTIES
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${${name}_INCLUDE_DIRS}")
endforeach()

# libunwind and the compiler's library have unwinding functions with the same names. The functions
# of libunwind need file descriptors to throw an exception. So the compiler's library is linked
# first, and its functions handle exceptions.
set_property(TARGET PkgConfig::unwind PROPERTY INTERFACE_LINK_LIBRARIES
  gcc_s ${unwind_LINK_LIBRARIES})
