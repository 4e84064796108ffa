# 32-bit little-endian MIPS: glibc's time_t has 32 bits.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(VELM_TRIPLET mipsel-linux-gnu)
set(VELM_QEMU mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
