# Run by cpack on the tree that it is about to pack.
set(debian ${CPACK_VEMK_SOURCE_DIR}/packaging/debian)
set(tree ${CPACK_TEMPORARY_DIRECTORY})
set(documents ${tree}/usr/share/doc/vemk)

file(MAKE_DIRECTORY ${documents})
file(READ ${debian}/copyright copyright)
string(REPLACE "@MAINTAINER@" "${CPACK_VEMK_MAINTAINER}" copyright "${copyright}")
file(WRITE ${documents}/copyright "${copyright}")

execute_process(
  COMMAND python3 ${debian}/changelog.py --version ${CPACK_PACKAGE_VERSION}
          --release ${CPACK_DEBIAN_PACKAGE_RELEASE} --maintainer "${CPACK_VEMK_MAINTAINER}"
          ${CPACK_VEMK_SOURCE_DIR}/CHANGELOG.md
  OUTPUT_FILE ${documents}/changelog.Debian
  COMMAND_ERROR_IS_FATAL ANY)

file(GLOB compressed ${tree}/usr/share/man/man*/*.[1-8] ${documents}/changelog.Debian)
execute_process(COMMAND gzip -9n ${compressed} COMMAND_ERROR_IS_FATAL ANY)

file(GLOB programs ${tree}/usr/bin/* ${tree}/usr/sbin/*)
execute_process(COMMAND strip --remove-section=.comment --remove-section=.note ${programs}
                COMMAND_ERROR_IS_FATAL ANY)

file(MAKE_DIRECTORY ${tree}/usr/share/lintian/overrides)
file(COPY_FILE ${debian}/lintian-overrides ${tree}/usr/share/lintian/overrides/vemk)

execute_process(COMMAND chmod -R u=rwX,go=rX ${tree} COMMAND_ERROR_IS_FATAL ANY)
