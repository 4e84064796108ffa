# 64-bit ARM: `char` has no sign.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(VELM_TRIPLET aarch64-linux-gnu)
set(VELM_QEMU aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
