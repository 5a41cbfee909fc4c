# proxymanager_quickjs: the JavaScript engine, QuickJS-NG, only for the script worker.
#
# The build uses the first of these that exists: the source folder that the build names
# (-DPROXYMANAGER_ENGINE_SOURCE=); the distribution's package (libqjs-dev), if it is recent enough;
# the source in a release tarball of this tree; the upstream tarball of a later suite of the
# distribution, which packaging/quickjs/fetch_quickjs.sh fetches once per machine.
#
# Sets the global properties proxymanager_engine_version, proxymanager_engine_header and, if there is a
# source folder with tests, proxymanager_engine_tests.
include_guard()

# The first release without the published vulnerabilities that docs/security/ lists.
set(PROXYMANAGER_ENGINE_MINIMUM 0.16.2)
set(PROXYMANAGER_ENGINE_SOURCE "" CACHE PATH
    "An unpacked source tarball of QuickJS-NG to build the script engine from")

set(engine_source "${PROXYMANAGER_ENGINE_SOURCE}")
if(NOT engine_source)
  pkg_search_module(proxymanager_qjs IMPORTED_TARGET GLOBAL
    "quickjs-ng>=${PROXYMANAGER_ENGINE_MINIMUM}" "qjs>=${PROXYMANAGER_ENGINE_MINIMUM}")
  if(proxymanager_qjs_FOUND)
    message(STATUS "Script engine: QuickJS-NG ${proxymanager_qjs_VERSION}, installed package")
    set_property(GLOBAL PROPERTY proxymanager_engine_version "${proxymanager_qjs_VERSION}")
    find_file(engine_header quickjs.h PATHS ${proxymanager_qjs_INCLUDE_DIRS} NO_CACHE)
    set_property(GLOBAL PROPERTY proxymanager_engine_header "${engine_header}")
    add_library(proxymanager_quickjs ALIAS PkgConfig::proxymanager_qjs)
    return()
  endif()
  set(engine_source "${CMAKE_CURRENT_LIST_DIR}/../packaging/quickjs/source")
endif()

if(NOT PROXYMANAGER_ENGINE_SOURCE AND NOT EXISTS "${engine_source}")
  # The error stream of the script is not captured, so the build shows its steps at once.
  execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../packaging/quickjs/fetch_quickjs.sh"
    OUTPUT_VARIABLE engine_source OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE engine_failed)
  if(engine_failed)
    message(FATAL_ERROR "The script engine could not be fetched; install libqjs-dev, or give a "
                        "source folder with -DPROXYMANAGER_ENGINE_SOURCE=")
  endif()
endif()

set(engine_parts dtoa.c libregexp.c libunicode.c quickjs.c)
foreach(part ${engine_parts} quickjs.h)
  if(NOT EXISTS "${engine_source}/${part}")
    message(FATAL_ERROR "${engine_source} is no source of QuickJS-NG: ${part} is missing")
  endif()
endforeach()
file(STRINGS "${engine_source}/quickjs.h" engine_version REGEX "define QJS_VERSION_(MAJOR|MINOR|PATCH)")
string(REGEX REPLACE "[^0-9;]+" "" engine_version "${engine_version}")
list(JOIN engine_version "." engine_version)
if(engine_version VERSION_LESS PROXYMANAGER_ENGINE_MINIMUM)
  message(FATAL_ERROR "${engine_source} is QuickJS-NG ${engine_version}; "
                      "${PROXYMANAGER_ENGINE_MINIMUM} is the first without published holes")
endif()
message(STATUS "Script engine: QuickJS-NG ${engine_version}, built from ${engine_source}")

# Upstream's library without its module for files, processes and timers. Upstream's CMakeLists.txt
# is not used, because it also builds programs.
list(TRANSFORM engine_parts PREPEND "${engine_source}/")
add_library(proxymanager_quickjs STATIC ${engine_parts})
target_include_directories(proxymanager_quickjs SYSTEM PUBLIC "${engine_source}")
target_compile_definitions(proxymanager_quickjs PRIVATE _GNU_SOURCE QUICKJS_NG_BUILD)
target_link_libraries(proxymanager_quickjs PUBLIC Threads::Threads m ${CMAKE_DL_LIBS})
set_target_properties(proxymanager_quickjs PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON
  C_EXTENSIONS ON C_VISIBILITY_PRESET hidden)
# These options replace the options of the folder. Even in builds with sanitizers or coverage, the
# engine is optimized and has no instrumentation, because the tests use the same stack and heap
# limits as a device. The engine's assertions stay on: a worker should end instead of running with
# broken memory. Each function has its own section, so that the linker of the worker can put the
# most used functions together.
set_property(TARGET proxymanager_quickjs PROPERTY COMPILE_OPTIONS
  -O3 -UNDEBUG -ffunction-sections -funsigned-char -w "-fmacro-prefix-map=${engine_source}/="
  -fno-strict-aliasing -fno-strict-overflow -fno-delete-null-pointer-checks
  ${proxymanager_hardening_flags} ${proxymanager_worker_hardening_flags})

set_property(GLOBAL PROPERTY proxymanager_engine_version "${engine_version}")
set_property(GLOBAL PROPERTY proxymanager_engine_header "${engine_source}/quickjs.h")
if(EXISTS "${engine_source}/tests")
  set_property(GLOBAL PROPERTY proxymanager_engine_tests "${engine_source}/tests")
endif()
