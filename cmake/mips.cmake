# Toolchain of 32-bit MIPS, big-endian, as the device is. `scripts/sysroot mips` gathers what is linked to.
set(CMAKE_SYSTEM_PROCESSOR mips)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
