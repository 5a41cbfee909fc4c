# The libraries this tree links, each as an imported target. Their packages are named once, in
# packaging/debian/control.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

foreach(dependency
    "dbusxx;dbus-c++-1" "curl;libcurl" "crypto;libcrypto" "seccomp;libseccomp" "cares;libcares"
    "idn2;libidn2" "psl;libpsl" "bsd;libbsd" "systemd;libsystemd" "unwind;libunwind")
  list(GET dependency 0 name)
  list(GET dependency 1 module)
  # SYSTEM: dbus-c++ names its headers with -I, and they do not bear this tree's warnings.
  pkg_check_modules(${name} REQUIRED IMPORTED_TARGET ${module})
  set_target_properties(PkgConfig::${name} PROPERTIES
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${${name}_INCLUDE_DIRS}")
endforeach()
