# Tests in Python: each test function is one CTest test, which runs in its own namespaces.
find_program(PROXYMANAGER_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)

# Python stores its byte code in the build folder, so the tree stays clean. Each test is a separate
# process. Without stored byte code, compiling pytest's assertions would take a third of a short
# test. pytest loads no plugins of the machine: the search for them takes a fifth of the start, and
# a test must not depend on them.
set(PROXYMANAGER_PYTHON_ENVIRONMENT "PYTHONDONTWRITEBYTECODE=;\
PYTHONPYCACHEPREFIX=${CMAKE_BINARY_DIR}/python;PYTEST_DISABLE_PLUGIN_AUTOLOAD=1")

# proxymanager_python_tests(LABEL OPTIONS...): registers the test_*.py of this folder. Tests with
# the mark slow also get this label. OPTIONS are options of pytest for this folder.
function(proxymanager_python_tests label)
  file(GLOB test_files CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/test_*.py")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${test_files})
  foreach(file IN LISTS test_files)
    get_filename_component(group "${file}" NAME_WE)
    string(REGEX REPLACE "^test_" "" group "${group}")
    file(STRINGS "${file}" lines REGEX "^(def test_|@pytest.mark.slow)")
    set(labels ${label})
    foreach(line IN LISTS lines)
      if(line MATCHES "^@pytest.mark.slow")
        list(APPEND labels slow)
        continue()
      endif()
      string(REGEX REPLACE "^def test_([A-Za-z0-9_]+).*" "\\1" name "${line}")
      set(test "${label}.${group}.${name}")
      add_test(NAME "${test}" COMMAND "${PROXYMANAGER_PYTHON}" -m pytest
        "--build=${CMAKE_BINARY_DIR}" "--sanitizer=${PROXYMANAGER_SANITIZER}" ${ARGN}
        "${file}::test_${name}")
      set_tests_properties("${test}" PROPERTIES TIMEOUT 900 LABELS "${labels}"
        SKIP_RETURN_CODE 77 ENVIRONMENT "${PROXYMANAGER_PYTHON_ENVIRONMENT}")
      # Slow tests mostly wait. So they start first, and other tests run meanwhile.
      if("slow" IN_LIST labels)
        set_tests_properties("${test}" PROPERTIES COST 100)
      endif()
      set(labels ${label})
    endforeach()
  endforeach()
endfunction()
