# Where the FHS wants things; every piece is installed by the target that owns it, except these.
install(FILES include/velm/location_policy.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velm)
