# The installed files. Every program finds the other programs by a path relative to itself, so any
# prefix works.
foreach(program_folder "proxymanagerd;${CMAKE_INSTALL_SBINDIR}"
    "proxymanager-pac-worker;${CMAKE_INSTALL_LIBEXECDIR}"
    "proxymanager-workbench;${CMAKE_INSTALL_LIBEXECDIR}"
    "proxymanagerctl;${CMAKE_INSTALL_BINDIR}")
  list(GET program_folder 0 program)
  list(GET program_folder 1 folder)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION "${folder}")
  endif()
endforeach()

# The client library. Below /usr, the system finds the library. Below another prefix, the programs
# find it by a path relative to themselves, so an installed tree can be moved.
install(TARGETS proxymanager-client-shared LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/client/library/include/proxymanager"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
set(pc_folder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(pc_prefix "/usr")
else()
  file(RELATIVE_PATH path "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/$" "" path "${path}")
  set(pc_prefix "\${pcfiledir}/${path}")
endif()
configure_file("${PROJECT_SOURCE_DIR}/client/library/proxymanager-client.pc.in"
  "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanager-client.pc" @ONLY)
install(FILES "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanager-client.pc" DESTINATION "${pc_folder}")

# The proxy resolver of GLib programs. GLib finds it below GLib's own prefix. For another prefix,
# programs need the folder in GIO_EXTRA_MODULES.
if(TARGET proxymanager_gio)
  set(PROXYMANAGER_GIO_MODULE_DIR "${CMAKE_INSTALL_LIBDIR}/gio/modules" CACHE STRING
      "Where the proxy resolver of GLib programs goes: below the prefix")
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH path "${CMAKE_INSTALL_PREFIX}/${PROXYMANAGER_GIO_MODULE_DIR}"
      "${CMAKE_INSTALL_FULL_LIBDIR}")
    string(REGEX REPLACE "/$" "" path "${path}")
    set_target_properties(proxymanager_gio PROPERTIES INSTALL_RPATH "$ORIGIN/${path}")
    # CMake adds an empty entry to a path that it replaces later, and the dynamic linker reads an
    # empty entry as the current folder. So the module is linked with its final path, if BUILD/out
    # has the same folders.
    if(path STREQUAL "../..")
      set_target_properties(proxymanager_gio PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
    endif()
  endif()
  install(TARGETS proxymanager_gio LIBRARY DESTINATION "${PROXYMANAGER_GIO_MODULE_DIR}")
endif()

install(FILES "${PROJECT_SOURCE_DIR}/dbus/com.zentu.ProxyManagerServiceInterface.xml"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces")
# libproxy.so.1. The link libproxy.so is left out: only builds of programs need it.
if(PROXYMANAGER_LIBPROXY)
  install(TARGETS proxymanager_libproxy LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" NAMELINK_SKIP)
endif()

# The files that other programs of the system read. Only the unit contains an absolute path (the
# daemon's path below the configured prefix), because systemd requires it.
set(PROXYMANAGER_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit goes: below the prefix, or an absolute folder")
set(proxymanager_packaging "${PROJECT_SOURCE_DIR}/packaging")
configure_file("${proxymanager_packaging}/systemd/proxymanagerd.service.in"
  "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanagerd.service" @ONLY)
install(FILES "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanagerd.service"
  DESTINATION "${PROXYMANAGER_SYSTEMD_UNIT_DIR}")
install(FILES "${proxymanager_packaging}/sysusers.d/proxymanagerd.conf" DESTINATION lib/sysusers.d)
install(FILES "${proxymanager_packaging}/dbus/com.zentu.ProxyManagerService.conf"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/system.d")
install(FILES "${proxymanager_packaging}/dbus/com.zentu.ProxyManagerService.service"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/system-services")
install(FILES "${proxymanager_packaging}/etc/trace.conf"
  DESTINATION "${CMAKE_INSTALL_SYSCONFDIR}/proxymanagerd")

set(proxymanager_pages "${PROJECT_SOURCE_DIR}/docs/man")
install(FILES "${proxymanager_pages}/proxymanagerd.8"
  "${proxymanager_pages}/proxymanager-lease.8" DESTINATION "${CMAKE_INSTALL_MANDIR}/man8")
install(FILES "${proxymanager_pages}/proxymanager-trace.conf.5"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man5")
install(FILES "${proxymanager_pages}/libproxymanager-client.3"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man3")
install(FILES "${proxymanager_pages}/com.zentu.ProxyManagerServiceInterface.7"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man7")
if(TARGET proxymanagerctl)
  install(FILES "${proxymanager_pages}/proxymanagerctl.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
  # zsh's default folder for completions of other programs. Distributions use other folders, for
  # example Debian uses share/zsh/vendor-completions.
  set(PROXYMANAGER_ZSH_COMPLETION_DIR "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" CACHE STRING
      "Where the completion for zsh goes: below the prefix, or an absolute folder")
  set(completion "${proxymanager_packaging}/completion")
  install(FILES "${completion}/proxymanagerctl.bash" RENAME proxymanagerctl
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
  install(FILES "${completion}/_proxymanagerctl" DESTINATION "${PROXYMANAGER_ZSH_COMPLETION_DIR}")
  install(FILES "${completion}/proxymanagerctl.fish"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d")
endif()

# The settings service: its units, user, policies and the commented settings file.
configure_file("${proxymanager_packaging}/systemd/proxymanager-settings.service.in"
  "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanager-settings.service" @ONLY)
install(FILES "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanager-settings.service"
  "${proxymanager_packaging}/systemd/proxymanager-settings.socket"
  DESTINATION "${PROXYMANAGER_SYSTEMD_UNIT_DIR}")
install(FILES "${proxymanager_packaging}/sysusers.d/proxymanager-settings.conf"
  DESTINATION lib/sysusers.d)
install(FILES "${proxymanager_packaging}/dbus/com.zentu.ProxyManagerSettings.conf"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/system.d")
install(FILES "${proxymanager_packaging}/dbus/com.zentu.ProxyManagerSettings.service"
  "${proxymanager_packaging}/dbus/org.pacrunner.service"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/system-services")
install(FILES "${proxymanager_packaging}/etc/settings.conf"
  DESTINATION "${CMAKE_INSTALL_SYSCONFDIR}/proxymanager")
install(FILES "${proxymanager_pages}/proxymanager-settings.8"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man8")
install(FILES "${proxymanager_pages}/settings.conf.5" DESTINATION "${CMAKE_INSTALL_MANDIR}/man5")
install(FILES "${proxymanager_pages}/org.pacrunner.7" DESTINATION "${CMAKE_INSTALL_MANDIR}/man7")

# The relay: its units, user, policy, commented configuration, and the snippets that make it the
# proxy of programs. proxymanagerctl links these snippets into /etc.
if(TARGET proxymanager-relay)
  configure_file("${proxymanager_packaging}/systemd/proxymanager-relay.service.in"
    "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanager-relay.service" @ONLY)
  install(FILES "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanager-relay.service"
    "${proxymanager_packaging}/systemd/proxymanager-relay.socket"
    DESTINATION "${PROXYMANAGER_SYSTEMD_UNIT_DIR}")
  install(FILES "${proxymanager_packaging}/sysusers.d/proxymanager-relay.conf"
    DESTINATION lib/sysusers.d)
  install(FILES "${proxymanager_packaging}/dbus/com.zentu.ProxyManagerRelay.conf"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/dbus-1/system.d")
  install(FILES "${proxymanager_packaging}/etc/relay.conf"
    DESTINATION "${CMAKE_INSTALL_SYSCONFDIR}/proxymanager")
  install(DIRECTORY "${PROXYMANAGER_OUTPUT_ROOT}/share/proxymanager/relay"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/proxymanager")
  install(FILES "${proxymanager_pages}/proxymanager-relay.8" DESTINATION "${CMAKE_INSTALL_MANDIR}/man8")
  install(FILES "${proxymanager_pages}/relay.conf.5" DESTINATION "${CMAKE_INSTALL_MANDIR}/man5")
endif()
