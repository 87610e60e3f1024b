# `cpack` makes a Debian package of the files that `cmake --install` installs with the prefix /usr.
set(VEMK_MAINTAINER "vemk maintainers <maintainers@users.noreply.c-seed-90aff2fa.example>"
    CACHE STRING "Who maintains the package: NAME <ADDRESS>")
set(VEMK_PACKAGE_RELEASE 1 CACHE STRING "Release of the package of one version of the program")

set(debian ${CMAKE_SOURCE_DIR}/packaging/debian)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vemk)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VEMK_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${VEMK_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"bridge between an access point's modules and a roaming service
vemk joins the internal module-messaging bus of a wireless access point to a
remote roaming service over one plain WebSocket connection. Messages pass
unchanged in both directions, modules can ask whether the connection is up,
and the connection heals itself after any failure.
.
This is the build for workstations, over stand-ins for the two libraries of
the access point's platform. It brings vemkctl, the command line to the bus,
and roam-service, a roaming service to test against.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The daemon stops an earlier instance with /bin/kill.
set(CPACK_DEBIAN_PACKAGE_DEPENDS procps)
# A TLS tunnel for the connection, see docs/tls.md.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion, stunnel4")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${debian}/conffiles ${debian}/postinst ${debian}/prerm ${debian}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Files that only the package has: compressed manuals, the change log, the copyright.
set(CPACK_PRE_BUILD_SCRIPTS ${debian}/finish_tree.cmake)
set(CPACK_VEMK_SOURCE_DIR ${CMAKE_SOURCE_DIR})
set(CPACK_VEMK_MAINTAINER ${VEMK_MAINTAINER})
include(CPack)
