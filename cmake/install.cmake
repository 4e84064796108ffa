# Where the FHS wants things. Each program is installed by the target that owns it.
install(FILES include/velm/location_policy.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velm)
install(FILES platform/include/nvram.h platform/include/dm.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velm/platform)
install(FILES etc/velmd.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

file(GLOB VELM_MAN_PAGES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/man/*.[1-8])
list(FILTER VELM_MAN_PAGES EXCLUDE REGEX "/nvram\\.1$") # belongs to the host platform
foreach(page ${VELM_MAN_PAGES})
    string(REGEX MATCH "[1-8]$" section ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(FILES packaging/bash-completion/velmctl packaging/bash-completion/velmd
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
