# A big-endian machine: `char` has no sign.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(VELM_TRIPLET s390x-linux-gnu)
set(VELM_QEMU s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
