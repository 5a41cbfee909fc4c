# The documents of docs/security/, written during the installation: the libraries of the installed
# programs, and the known vulnerabilities of the script engine.
set(security_programs "")
foreach(program proxymanagerd proxymanager-pac-worker proxymanager-fetch proxymanager-lease
    proxymanager-settings proxymanager-relay proxymanagerctl proxymanager-client-shared proxymanager_gio
    proxymanager_libproxy proxymanager-workbench)
  if(TARGET ${program})
    list(APPEND security_programs "$<TARGET_FILE:${program}>")
  endif()
endforeach()
get_property(engine_version GLOBAL PROPERTY proxymanager_engine_version)
get_property(engine_header GLOBAL PROPERTY proxymanager_engine_header)
list(JOIN security_programs "|" security_programs)
set(security_folder "${PROXYMANAGER_OUTPUT_ROOT}/share/security")
set(security_command "${CMAKE_COMMAND}" "-DPROGRAMS=${security_programs}"
  "-DVERSION=${proxymanagerd_VERSION}" "-DENGINE_VERSION=${engine_version}"
  "-DENGINE_HEADER=${engine_header}" "-DOBJDUMP=${CMAKE_OBJDUMP}"
  "-DHOLES=${PROJECT_SOURCE_DIR}/docs/security/engine_holes.json"
  "-DCOPYRIGHT=${PROJECT_SOURCE_DIR}/packaging/debian/copyright" "-DOUTPUT=${security_folder}"
  "-DFOREIGN=${CMAKE_CROSSCOMPILING}"
  -P "${PROJECT_SOURCE_DIR}/cmake/security_documents.cmake")
set(security_code "execute_process(COMMAND")
foreach(word IN LISTS security_command)
  string(APPEND security_code " \"${word}\"")
endforeach()
install(CODE "${security_code} COMMAND_ERROR_IS_FATAL ANY)")
install(FILES "${security_folder}/sbom.cdx.json" "${security_folder}/vex.cdx.json"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/proxymanagerd")
