# Where things go. Every program finds its neighbours by the path from itself, so any prefix serves.
foreach(program_folder "proxymanagerd;${CMAKE_INSTALL_SBINDIR}"
    "proxymanager-pac-worker;${CMAKE_INSTALL_LIBEXECDIR}"
    "proxymanagerctl;${CMAKE_INSTALL_BINDIR}")
  list(GET program_folder 0 program)
  list(GET program_folder 1 folder)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION "${folder}")
  endif()
endforeach()

set(proxymanager_interface
    "${PROJECT_SOURCE_DIR}/dbus/com.zentu.ProxyManagerServiceInterface.xml")
if(EXISTS "${proxymanager_interface}")
  install(FILES "${proxymanager_interface}"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces")
endif()
