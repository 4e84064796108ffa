# For a Debian cross compiler; the files beside this one name the machine and include it. The device's
# libraries are looked for in VELM_SYSROOT alone: -DVELM_SYSROOT=..., or a variable of the environment.
# scripts/cross.sh makes such a root.
set(VELM_SYSROOT "$ENV{VELM_SYSROOT}" CACHE PATH "Root with the device's headers and libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VELM_SYSROOT)
if(NOT IS_DIRECTORY "${VELM_SYSROOT}/usr/include")
    message(FATAL_ERROR "VELM_SYSROOT must name a root with usr/include; it is \"${VELM_SYSROOT}\"")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${VELM_TRIPLET})
set(CMAKE_SYSROOT ${VELM_SYSROOT})
set(CMAKE_C_COMPILER ${VELM_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VELM_TRIPLET}-g++)

# Programs come from the build machine, everything else from the root. pkg-config does not read these
# variables, and would find the build machine's libraries.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VELM_SYSROOT})
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR}
    ${VELM_SYSROOT}/usr/lib/${VELM_TRIPLET}/pkgconfig:${VELM_SYSROOT}/usr/share/pkgconfig)

# ctest runs the device's programs with it. It looks for the loader and the libraries in the root.
find_program(VELM_EMULATOR NAMES qemu-${VELM_QEMU}-static qemu-${VELM_QEMU})
if(VELM_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${VELM_EMULATOR} -L ${VELM_SYSROOT} -E VELM_EMULATED=1)
endif()
