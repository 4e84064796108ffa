# 32-bit ARM, ARMv7 with floating-point registers: `char` has no sign, glibc's time_t has 32 bits.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(VELM_TRIPLET arm-linux-gnueabihf)
set(VELM_QEMU arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
