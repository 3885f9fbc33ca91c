# Toolchain of 32-bit MIPS, little-endian. `scripts/sysroot mipsel` gathers what is linked to.
set(CMAKE_SYSTEM_PROCESSOR mipsel)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
