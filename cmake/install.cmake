# The files of `cmake --install` and their folders. A device gets the daemon with its configuration
# and manuals. A workstation also gets the companions, the systemd unit and the shell completion.
include(GNUInstallDirs)
set(VEMK_CONFIGURATION_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/vemk)

install(TARGETS vemk RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
# The example works together with roam-service. The installed file has its URL commented out: on
# another machine any program on that port could pose as the service.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS examples/vemk.conf)
file(READ examples/vemk.conf configuration)
string(REPLACE "\nroam_service_url=" "\n#roam_service_url=" configuration "${configuration}")
file(WRITE ${CMAKE_BINARY_DIR}/vemk.conf "${configuration}")
install(FILES ${CMAKE_BINARY_DIR}/vemk.conf DESTINATION ${VEMK_CONFIGURATION_DIR})

set(manuals vemk.8 vemk.conf.5)
if(VEMK_PLATFORM STREQUAL "host")
  list(APPEND manuals vemkctl.1 roam-service.1)
endif()
foreach(manual ${manuals})
  string(REGEX MATCH "[0-9]$" section ${manual})
  install(FILES man/${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

if(VEMK_PLATFORM STREQUAL "host")
  install(TARGETS vemkctl roam-service RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

  # A program of this build writes the completion; a build for another processor could not run it.
  if(NOT CMAKE_CROSSCOMPILING)
    add_subdirectory(completions)
    install(FILES ${VEMKCTL_COMPLETION}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  endif()

  set(VEMK_DAEMON ${CMAKE_INSTALL_FULL_SBINDIR}/vemk)
  set(VEMK_VEMKCTL ${CMAKE_INSTALL_FULL_BINDIR}/vemkctl)
  configure_file(packaging/systemd/vemk.service.in vemk.service @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/vemk.service DESTINATION lib/systemd/system)
endif()
