# Hardening of everything that this tree builds, including the script engine: the OpenSSF's list for
# C and C++ compilers. Flags that a compiler or an architecture does not support are left out.
# tests/checks/hardening.py checks the installed programs.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

option(PROXYMANAGER_HARDENING "Build with the compiler's and the linker's hardening" ON)

# The distributions' compilers make position-independent programs by default; other compilers need the
# option.
check_pie_supported()
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang" AND NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
  execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -dM -E -x c /dev/null
    OUTPUT_VARIABLE predefined ERROR_QUIET)
  if(NOT predefined MATCHES "__PIE__")
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  endif()
endif()

# Sets ${result} to the flags that the compiler accepts.
function(proxymanager_known_flags result)
  set(known "")
  set(CMAKE_REQUIRED_FLAGS "-Werror")
  foreach(flag ${ARGN})
    string(MAKE_C_IDENTIFIER "PROXYMANAGER_HAS${flag}" variable)
    check_cxx_compiler_flag("${flag}" ${variable})
    if(${variable})
      list(APPEND known "${flag}")
    endif()
  endforeach()
  set(${result} "${known}" PARENT_SCOPE)
endfunction()

# For every target. The script engine has its own compile options, so its CMake file adds these again.
set(proxymanager_hardening_flags "")
set(proxymanager_hardening_cxx_flags "")
# This option is only for the script worker and its engine: if a faulty engine reads stack memory
# that was not set, the engine reads zeros.
set(proxymanager_worker_hardening_flags "")
if(PROXYMANAGER_HARDENING)
  proxymanager_known_flags(proxymanager_hardening_flags -fstack-protector-strong
    -fstack-clash-protection -fcf-protection=full -mbranch-protection=standard)
  proxymanager_known_flags(proxymanager_worker_hardening_flags -ftrivial-auto-var-init=zero)
  # The C library checks sizes only in optimized code, and the sanitizers have their own checks.
  if(NOT PROXYMANAGER_SANITIZER AND NOT PROXYMANAGER_COVERAGE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    list(APPEND proxymanager_hardening_flags -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  endif()
  set(proxymanager_hardening_cxx_flags "$<$<COMPILE_LANGUAGE:CXX>:-D_GLIBCXX_ASSERTIONS>")
  add_compile_options(${proxymanager_hardening_flags} ${proxymanager_hardening_cxx_flags})
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
