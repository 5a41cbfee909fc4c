# Applies the option PROXYMANAGER_SANITIZER to all targets that are added later. Its values are
# address (with undefined behaviour and leaks), thread, and fuzzer (like address, with the
# instrumentation with which libFuzzer counts edges; only for clang).
if(PROXYMANAGER_SANITIZER STREQUAL "address")
  set(proxymanager_sanitizer_flags -fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(PROXYMANAGER_SANITIZER STREQUAL "thread")
  set(proxymanager_sanitizer_flags -fsanitize=thread)
  # Boost.Asio uses fences, which the sanitizer does not understand. Boost.Asio's locks order
  # everything else.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-tsan)
  endif()
elseif(PROXYMANAGER_SANITIZER STREQUAL "fuzzer")
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR NOT CMAKE_C_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "PROXYMANAGER_SANITIZER=fuzzer wants clang: give "
                        "-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
  endif()
  set(proxymanager_sanitizer_flags
    -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
elseif(NOT PROXYMANAGER_SANITIZER STREQUAL "")
  message(FATAL_ERROR "PROXYMANAGER_SANITIZER is address, thread, fuzzer or empty, "
                      "not '${PROXYMANAGER_SANITIZER}'")
endif()

if(proxymanager_sanitizer_flags)
  # -O1 and only line numbers: the build takes half of the time, and the reports have the same
  # content.
  add_compile_options(${proxymanager_sanitizer_flags} -fno-omit-frame-pointer -O1 -g1)
  add_link_options(${proxymanager_sanitizer_flags})
endif()

# proxymanager_needs_no_speed(TARGET): with a sanitizer, compiles TARGET without optimization. This
# takes half of the time if the headers have many templates.
function(proxymanager_needs_no_speed target)
  if(PROXYMANAGER_SANITIZER)
    target_compile_options(${target} PRIVATE -O0)
  endif()
endfunction()

# Without optimization, each line has its own counter. The counters must be safe for several threads
# and processes.
if(PROXYMANAGER_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic -O0)
  add_link_options(--coverage)
endif()
