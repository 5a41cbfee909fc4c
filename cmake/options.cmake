# The options of a build. Tests and install rules are on only if this tree is the top-level project.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Release, Debug or RelWithDebInfo" FORCE)
endif()

option(PROXYMANAGER_TESTS "Build the tests" ${PROJECT_IS_TOP_LEVEL})
option(PROXYMANAGER_BENCH "Build the benchmarks" OFF)
option(PROXYMANAGER_GIO_MODULE "Build the proxy resolver of programs that use GLib" ${PROJECT_IS_TOP_LEVEL})
option(PROXYMANAGER_LIBPROXY "Install a libproxy.so.1 that asks the daemon, in the place of libproxy's own" OFF)
option(PROXYMANAGER_INSTALL "Make install rules" ${PROJECT_IS_TOP_LEVEL})
option(PROXYMANAGER_WERROR "Treat warnings as errors" OFF)
set(PROXYMANAGER_SANITIZER "" CACHE STRING "Empty, address (with undefined), thread or fuzzer (tests/fuzz)")
option(PROXYMANAGER_COVERAGE "Count which lines and branches run, for gcovr" OFF)
set(PROXYMANAGER_PUBLIC_SUFFIX_LIST
    "${CMAKE_CURRENT_SOURCE_DIR}/domain/public_suffix_list_2011-09-02.dat"
    CACHE FILEPATH "The public-suffix list that is compiled in")
option(PROXYMANAGER_WORKER_SECCOMP
       "Sandbox the script worker with seccomp; off only for devices whose kernel has none" ON)

# The crash report needs unwind tables. On 32-bit Arm, functions that throw no exception have such
# tables only with this option.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  add_compile_options(-funwind-tables)
endif()

# The build folder has the same layout as an installed tree. So a program finds the other programs
# by the same relative path in both trees.
set(PROXYMANAGER_OUTPUT_ROOT "${CMAKE_CURRENT_BINARY_DIR}/out")
